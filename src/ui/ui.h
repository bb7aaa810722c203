// The user interface: what the front end (the null window now, the web page later) does with the
// status fields that logic fills, and the commands it posts.
#pragma once

namespace orv::ui {

void refreshCounters() noexcept;
void enableControls() noexcept;
void handleCommands(); // commands posted by the front end, run on the worker each second
void clearCounters() noexcept;

} // namespace orv::ui
