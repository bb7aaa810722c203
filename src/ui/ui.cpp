#include "ui/ui.h"

#include "core/core.h"

namespace orv::ui {

void refreshCounters() noexcept {
    core::repaint(core::Region::Counters);
}
void enableControls() noexcept {}
void clearCounters() noexcept {}

} // namespace orv::ui
