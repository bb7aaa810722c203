// The window seam: logic writes status fields and asks for repaints; a front end (the null
// window now, the web front end later) reads the fields and posts commands.
#pragma once

#include <atomic>
#include <cstdint>

namespace orv::ui {

// Connection lights: 0 off, 1 connected, 2 receiving, 3 stopped.
enum class Indicator : std::uint8_t { Traffic, Weather, Simulator, RealTraffic, Count };
void setIndicator(Indicator which, int value) noexcept;
int indicator(Indicator which) noexcept;

enum class Region : std::uint8_t { MessageLine, Counters, Indicators, All };
void repaint(Region region) noexcept;
std::uint64_t repaintCount(Region region) noexcept;

void refreshCounters() noexcept;
void enableControls() noexcept;
void handleCommands(); // commands posted by the front end, run on the worker each second
void clearCounters() noexcept;

} // namespace orv::ui
