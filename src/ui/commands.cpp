// Settings and buttons as the user changes them: each stores its parameter at once and shows its
// line in the message area. What the engine must act on is handed to the worker, which runs it in
// its next second.
#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <mutex>
#include <optional>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "core/core.h"
#include "params/params.h"
#include "parking/parking.h"
#include "refdata/refdata.h"
#include "sim/sim.h"
#include "ui/ui.h"

namespace orv::ui {

namespace {

// What the worker does for the commands in its next second.
struct Requests {
    std::mutex mutex; // guards the two texts
    std::optional<std::string> blockCallsign, destination;
    std::atomic<bool> flushStatics{false}, recalculate{false}, reread{false}, checkParkAirports{false};
};
Requests& requests() {
    static Requests r;
    return r;
}
std::mutex& commandMutex() { // one command at a time, as a window's thread runs them
    static std::mutex m;
    return m;
}

struct Label {
    std::string_view name, label, group;
};
constexpr Label kLabels[] = {
    {"SIM_CHOICE", "Simulator", "Simulator"},
    {"ALWAYS_ON_TOP", "Stay on top", "Program"},
    {"OBJECTID_LIST", "Oid list", "Program"},
    {"NAV_LIGHTS_WHILE_PARKED", "Nav lights", "Traffic injection"},
    {"AEROWINX", "Aerowinx", "Program"},
    {"GUID_CHANGES", "GUID changes", "Liveries"},
    {"SCAN_LIVERIES", "Scan for liveries", "Liveries"},
    {"LIG_AUTOMATIC", "Automatic:", "Liveries"},
    {"LIG_PRIORITIZE", "Prioritize", "Liveries"},
    {"AI_PACKAGE_SELECTOR", "Package order", "Liveries"},
    {"MATCHING_DEPTH", "Max aircraft matching depth", "Liveries"},
    {"SCAN_AIRPORTS", "Scan for addon airports", "Airport parking"},
    {"LIGHT_AIRCRAFT", "Light aircraft", "Traffic injection"},
    {"HELICOPTERS", "Helicopters", "Traffic injection"},
    {"HIGH_PERF_AIRCRAFT", "FighterJets", "Traffic injection"},
    {"AUTO_RANGE", "Auto radius", "Traffic injection"},
    {"RANGE", "Radius (nm)", "Traffic injection"},
    {"AR_ABOVE_HEIGHT", "Above (ft): 100 nm", "Traffic injection"},
    {"AIRBORNE_ONLY", "AirOnly", "Traffic injection"},
    {"BLOCK_CALLSIGN", "Block callsign:", "Traffic injection"},
    {"COLLISION_USER_GND", "User ground", "Collision avoidance"},
    {"COLLISION_USER_AIR", "User air", "Collision avoidance"},
    {"COLLISION_LIVE_PARKED_GND", "Live X parked", "Collision avoidance"},
    {"STRAIGHT_PBS_ONLY", "Straight push backs only", "Traffic injection"},
    {"MAX_PARK_SEL", "Max park (static+live):", "Airport parking"},
    {"MAX_LIVE_SEL", "Max live (park incl):", "Traffic injection"},
    {"DESTINATION", "Destination:", "Airport parking"},
    {"AIRP_RANGE", "Range (nm):", "Airport parking"},
    {"AIRP_HEIGHT", "Height above gnd (ft):", "Airport parking"},
    {"INITIAL_LOAD_ONLY", "ILO", "Airport parking"},
    {"WEEK", "Week", "Airport parking"},
    {"PARK_SOFT", "Soft", "Airport parking"},
    {"parking_percentage", "Target (%):", "Airport parking"},
    {"MAX_FIT_FL", "Max fit (hrs):", "Airport parking"},
};

const Label* labelOf(std::string_view name) {
    for (const auto& l : kLabels)
        if (l.name == name) return &l;
    return nullptr;
}

// The line a check box shows when it reaches a state; empty: none.
std::string checkBoxMessage(std::string_view name, bool on) {
    const std::string app(core::kAppName);
    if (name == "LIG_AUTOMATIC" && !on)
        return "The liveries defined by your lfolder parameters will be scanned";
    if (name == "LIG_PRIORITIZE" && on)
        return "Liveries, for airl+model, in lower lfolders that are already available will be skipped";
    if (name == "COLLISION_LIVE_PARKED_GND" && !on)
        return "Be aware, live aircraft may collide with (run through) static parked on the ground";
    if (name == "COLLISION_USER_GND" && !on)
        return "Be aware, user aircraft may collide with (run through) live aircraft and static parked on "
               "the ground";
    if (name == "COLLISION_USER_AIR" && !on)
        return "Be aware, user aircraft may collide with (run through) live aircraft in the air";
    if (name == "INITIAL_LOAD_ONLY" && on)
        return fmt::format(
            "Initial Load Only: static parked aircraft are generated once, no renewal every {} minutes", 20);
    if (name == "ALWAYS_ON_TOP" && on) return fmt::format("{}'s window will remain visible", app);
    if (name == "GUID_CHANGES" && !on)
        return "Be aware, no more livery updates: you miss correct data for Learn, LittleNavMap, etc!";
    if (name == "AEROWINX" && on)
        return fmt::format("Note: This mode is for Aerowinx PSX users only, please re-start {}", app);
    if (name == "SCAN_LIVERIES" && on)
        return fmt::format("Your liveries will be scanned at the next start of {}", app);
    if (name == "SCAN_AIRPORTS" && on)
        return fmt::format("Your airports will be scanned at the next start of {}", app);
    if (name == "OBJECTID_LIST" && on)
        return fmt::format("Every minute info about all active live aircraft is written to the file {}",
                           "ObjectIdList.txt");
    if (name == "AIRBORNE_ONLY" && on)
        return "Be aware, airborne live traffic only!  (greater than 300 ft above ground ...)";
    return {};
}

CommandResult shown(bool ok, std::string message) {
    if (message.empty())
        core::clearMessage();
    else
        core::message(message, true);
    return {ok, std::move(message)};
}

// A whole text as a number of type T; none when anything is left over.
template <typename T>
std::optional<T> parseNumber(std::string_view text) {
    T v{};
    const auto* end = text.data() + text.size();
    const auto r = std::from_chars(text.data(), end, v);
    if (r.ec != std::errc{} || r.ptr != end) return std::nullopt;
    return v;
}

// The radius in use follows RANGE unless the automatic radius decides it.
void applyRange(std::int32_t nm) {
    if (!params::gParams.AUTO_RANGE) params::gParams.radiusNm = nm;
}

CommandResult blockCallsign(std::string_view text) {
    const std::string wanted = core::toUpper(core::trim(text));
    const std::string stored = params::gParams.BLOCK_CALLSIGN;
    if (wanted.empty()) {
        if (stored.empty()) return shown(true, "Nothing to block or unblock...");
        std::lock_guard lock(requests().mutex);
        requests().blockCallsign = std::string();
        return shown(true, fmt::format("no more blocking of live aircraft '{}'", stored));
    }
    if (wanted.size() < 4 || wanted.size() > 8)
        return shown(false, fmt::format("callsign '{}' is not valid", wanted));
    if (wanted == stored) return shown(true, fmt::format("callsign '{}' was already set ...", wanted));
    std::lock_guard lock(requests().mutex);
    requests().blockCallsign = wanted;
    return shown(true, fmt::format("live aircraft '{}' will be blocked", wanted));
}

CommandResult destination(std::string_view text) {
    const std::string wanted(core::trim(text));
    const std::string& stored = params::gParams.DESTINATION;
    if (wanted.empty()) {
        std::lock_guard lock(requests().mutex);
        requests().destination = std::string();
        return shown(true, "destination set to empty");
    }
    if (wanted.size() != 4) return shown(false, fmt::format("destination '{}' is not valid", wanted));
    if (core::toUpper(wanted) == stored)
        return shown(true, fmt::format("destination '{}' was already set ...", wanted));
    const auto code = refdata::AirportCode::tryMake(wanted);
    if (!code) return shown(false, refdata::kFixedCodeError);
    if (!refdata::airportKnown(*code))
        return shown(false, fmt::format("destination '{}' is unknown ...", code->view()));
    std::lock_guard lock(requests().mutex);
    requests().destination = std::string(code->view());
    return shown(true, fmt::format("New destination: {}", code->view()));
}

nlohmann::json setting(const params::Parameter& p, std::string_view kind, nlohmann::json value,
                       nlohmann::json allowed, bool enabled) {
    const Label* l = labelOf(p.name);
    return {{"name", p.name},
            {"kind", kind},
            {"label", l ? l->label : p.name},
            {"group", l ? l->group : "Other"},
            {"value", std::move(value)},
            {"allowed", std::move(allowed)},
            {"enabled", enabled}};
}

} // namespace

std::string settingsJson() {
    std::lock_guard lock(commandMutex());
    const auto& lists = params::parameterLists();
    auto out = nlohmann::json::array();
    for (const auto* p : lists.checkBoxes)
        if (labelOf(p->name)) out.push_back(setting(*p, "check", p->value, nlohmann::json::array(), true));
    const bool autoRange = params::gParams.AUTO_RANGE;
    for (const auto* p : lists.choiceInts)
        if (labelOf(p->name))
            out.push_back(
                setting(*p, "choice", p->value, p->allowedValues, p->name != "RANGE" || !autoRange));
    if (const auto* fit =
            dynamic_cast<const params::ChoiceFloatParameter*>(params::findParameter("MAX_FIT_FL")))
        out.push_back(setting(*fit, "choice", fit->value, fit->allowedValues, true));
    for (const char* name : {"SIM_CHOICE", "AI_PACKAGE_SELECTOR"})
        if (const auto* p = dynamic_cast<const params::ChoiceTextParameter*>(params::findParameter(name)))
            out.push_back(
                setting(*p, "choice", p->value, p->allowedValues,
                        std::string_view(name) != "AI_PACKAGE_SELECTOR" || !params::gParams.SCAN_LIVERIES));
    for (const char* name : {"BLOCK_CALLSIGN", "DESTINATION"})
        if (const auto* p = dynamic_cast<const params::TextParameter*>(params::findParameter(name))) {
            const bool block = std::string_view(name) == "BLOCK_CALLSIGN";
            out.push_back(
                setting(*p, "text", p->value, block ? nlohmann::json{4, 8} : nlohmann::json{4, 4}, true));
        }
    return out.dump();
}

CommandResult changeSetting(std::string_view name, std::string_view value) {
    std::lock_guard lock(commandMutex());
    try {
        auto* p = params::findParameter(name);
        if (!p || !labelOf(name)) return shown(false, fmt::format("There is no setting '{}'", name));
        if (auto* b = dynamic_cast<params::CheckBoxParameter*>(p)) {
            if (value != "true" && value != "false")
                return shown(false, fmt::format("{} is on or off, not '{}'", labelOf(name)->label, value));
            const bool on = value == "true";
            if (b->value != on) params::set(*b, on);
            if (name == "AUTO_RANGE" && !on) applyRange(params::gParams.RANGE); // the radius kept from before
            return shown(true, checkBoxMessage(name, on));
        }
        if (auto* c = dynamic_cast<params::ChoiceIntParameter*>(p)) {
            const auto v = parseNumber<std::int32_t>(value);
            if (!v ||
                std::find(c->allowedValues.begin(), c->allowedValues.end(), *v) == c->allowedValues.end())
                return shown(false, fmt::format("'{}' is not a value of {}: it takes {}", value,
                                                labelOf(name)->label, fmt::join(c->allowedValues, ", ")));
            params::set(*c, *v);
            if (name == "RANGE") applyRange(*v);
            return shown(true, fmt::format("{} {}", labelOf(name)->label, *v));
        }
        if (auto* f = dynamic_cast<params::ChoiceFloatParameter*>(p)) {
            const auto v = parseNumber<float>(value);
            if (!v ||
                std::find(f->allowedValues.begin(), f->allowedValues.end(), *v) == f->allowedValues.end())
                return shown(false, fmt::format("'{}' is not a value of {}: it takes {}", value,
                                                labelOf(name)->label, fmt::join(f->allowedValues, ", ")));
            f->value = *v;
            params::set(params::parameter<params::IntParameter>("MAX_FIT"),
                        std::clamp(static_cast<std::int32_t>(std::lround(2.0 * *v)) - 1, 0, 47));
            return shown(true, fmt::format("{} {}", labelOf(name)->label, *v));
        }
        if (auto* t = dynamic_cast<params::ChoiceTextParameter*>(p)) {
            if (std::find(t->allowedValues.begin(), t->allowedValues.end(), value) == t->allowedValues.end())
                return shown(false, fmt::format("'{}' is not a choice of {}", value, labelOf(name)->label));
            if (t->value == value) return shown(true, "");
            params::set(*t, std::string(value));
            if (name == "SIM_CHOICE") {
                sim::switchSimulator();
                return {true, core::messageLine()};
            }
            return shown(true,
                         "If you want to make this choice effective, you must start a Scan for liveries");
        }
        if (name == "BLOCK_CALLSIGN") return blockCallsign(value);
        if (name == "DESTINATION") return destination(value);
        return shown(false, fmt::format("There is no setting '{}'", name));
    } catch (const std::exception& e) {
        core::log(fmt::format("{} exception {}", "changeSetting", e.what()));
        return shown(false, e.what());
    }
}

CommandResult runCommand(std::string_view name, std::string_view argument) {
    if (name == "Block") return changeSetting("BLOCK_CALLSIGN", argument);
    if (name == "Unblock") return changeSetting("BLOCK_CALLSIGN", "");
    if (name == "Scan liveries") return changeSetting("SCAN_LIVERIES", "true");
    if (name == "Scan airports") return changeSetting("SCAN_AIRPORTS", "true");
    std::lock_guard lock(commandMutex());
    auto& r = requests();
    if (name == "Flush static") {
        r.flushStatics = true;
        return shown(true, "All static parked aircraft will be removed ...");
    }
    if (name == "Now") {
        if (params::gParams.INITIAL_LOAD_ONLY || parking::parkStatus().airport.empty())
            return shown(true, "");
        r.recalculate = true;
        return shown(true, "A new calculation of the static parked aircraft starts");
    }
    if (name == "Re-read") {
        r.reread = true;
        return shown(true, "The airport file will be read again");
    }
    if (name == "Check park airports") {
        r.checkParkAirports = true;
        return shown(true, "The park airports will be checked");
    }
    return shown(false, fmt::format("There is no command '{}'", name));
}

void handleCommands() {
    auto& r = requests();
    std::optional<std::string> block, dest;
    {
        std::lock_guard lock(r.mutex);
        block.swap(r.blockCallsign);
        dest.swap(r.destination);
    }
    {
        // The page reads these texts under the same lock.
        std::lock_guard lock(commandMutex());
        if (block) params::set(params::parameter<params::StringParameter>("BLOCK_CALLSIGN"), *block);
        if (dest) params::set(params::parameter<params::StringParameter>("DESTINATION"), *dest);
    }
    if (dest) {
        if (const auto code = refdata::AirportCode::tryMake(*dest)) (void)parking::setParkAirport(*code);
    }
    if (r.flushStatics.exchange(false)) parking::flushStatics();
    if (r.recalculate.exchange(false)) parking::recalculate();
    if (r.reread.exchange(false)) {
        const auto park = parking::parkStatus();
        if (const auto code = refdata::AirportCode::tryMake(park.airport)) {
            parking::leaveParkAirport();
            (void)parking::setParkAirport(*code);
        }
    }
    if (r.checkParkAirports.exchange(false))
        core::message(parking::checkParkAirports() ? "park airports and stands are okay"
                                                   : "the park airports have problems, see the log",
                      true);
}

} // namespace orv::ui
