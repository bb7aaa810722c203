// Parameters the running program reads. The values live here with their catalogue defaults;
// the reading and writing of parameters.xml comes with the parameter model.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace orv::params {

struct Parameter;

struct Parameters {
    std::atomic<int> RANGE{40};              // traffic radius, nautical miles
    std::atomic<bool> AUTO_RANGE{true};      // radius follows height and airport distance
    std::atomic<int> radiusNm{40};           // the radius in use: RANGE, or the automatic one
    std::atomic<int> AR_ABOVE_HEIGHT{48000}; // feet: above it the automatic radius is 100 nm
    std::atomic<int> AIRP_HEIGHT{18000};     // feet: above it airports are out of sight
    std::atomic<bool> AIRBORNE_ONLY{false};
    std::atomic<bool> SCAN_LIVERIES{false};
    std::atomic<bool> SCAN_AIRPORTS{false};
    std::atomic<bool> INITIAL_LOAD_ONLY{false};
    std::atomic<bool> OBJECTID_LIST{false};
    std::atomic<bool> AEROWINX{false};
    std::atomic<bool> ALWAYS_ON_TOP{false};
    std::atomic<int> PORT_NUMBER{10747};
    std::atomic<int> MATCHING_DEPTH{4}; // how far down the livery ladder a match may go
    std::atomic<bool> RANDOM{true};     // random picks among equal liveries
    std::atomic<int> MAX_LIVE_SEL{500}; // live aircraft at most in the simulator (0: none)
    std::atomic<bool> GUID_CHANGES{true};
    std::atomic<bool> NAV_LIGHTS_WHILE_PARKED{true};
    std::atomic<bool> LIGHT_AIRCRAFT{true}, HELICOPTERS{true}, HIGH_PERF_AIRCRAFT{true};
    std::atomic<int> HOLDING_THRESHOLD_METERS{250};
    std::atomic<int> MAX_HOLDING_MINUTES{20};
    std::atomic<bool> STRAIGHT_PBS_ONLY{false};
    std::atomic<bool> COLLISION_USER_GND{true}, COLLISION_USER_AIR{true}, COLLISION_LIVE_PARKED_GND{false};
    std::atomic<int> MAX_PARK_SEL{500}; // parked aircraft at most, live and static (0: no limit)
    // Written by the worker only.
    std::string DESTINATION;
    std::string BLOCK_CALLSIGN;

    void reset();
    // Copies the catalogue's values, after parameters.xml was read.
    void takeFromCatalogue();
    // Copies one catalogue value; params::set calls it, so nothing else writes the mirror.
    void mirror(const Parameter& p);
};

extern Parameters gParams;

} // namespace orv::params

// ---- The parameter model and parameters.xml -------------------------------------------------

namespace pugi {
class xml_document;
class xml_node;
} // namespace pugi

namespace orv::params {

// What a window control needs from a parameter; the null window has none.
class ControlSink {
  public:
    virtual ~ControlSink() = default;
    virtual void setChecked(std::uint16_t controlId, bool checked) = 0;
    virtual void setText(std::uint16_t controlId, const std::string& text) = 0;
};

struct Parameter {
    explicit Parameter(std::string n) : name(std::move(n)) {}
    virtual ~Parameter() = default;
    std::string name;
};

struct BoolParameter : Parameter {
    BoolParameter(std::string n, bool d) : Parameter(std::move(n)), defaultValue(d), value(d) {}
    bool defaultValue;
    bool value;
};

struct IntParameter : Parameter {
    IntParameter(std::string n, std::int32_t d, std::int32_t lo, std::int32_t hi)
        : Parameter(std::move(n)), defaultValue(d), minimum(lo), maximum(hi), value(d) {}
    std::int32_t defaultValue, minimum, maximum, value;
};

struct StringParameter : Parameter {
    StringParameter(std::string n, std::string d)
        : Parameter(std::move(n)), defaultValue(d), value(std::move(d)) {}
    std::string defaultValue;
    std::string value;
};

struct ControlBinding {
    std::uint16_t controlId = 0;
    std::int32_t row = 0;
    ControlSink* windowHandle = nullptr;
};

struct CheckBoxParameter : BoolParameter, ControlBinding {
    CheckBoxParameter(std::string n, bool d, std::uint16_t id, std::int32_t r)
        : BoolParameter(std::move(n), d), ControlBinding{id, r, nullptr} {}
};

struct ChoiceIntParameter : IntParameter, ControlBinding {
    ChoiceIntParameter(std::string n, std::int32_t d, std::vector<std::int32_t> allowed, std::uint16_t id,
                       std::int32_t r)
        : IntParameter(std::move(n), d, allowed.front(), allowed.back()), ControlBinding{id, r, nullptr},
          allowedValues(std::move(allowed)) {}
    std::vector<std::int32_t> allowedValues;
};

struct TextParameter : StringParameter, ControlBinding {
    TextParameter(std::string n, std::string d, std::uint16_t id, std::int32_t r)
        : StringParameter(std::move(n), std::move(d)), ControlBinding{id, r, nullptr} {}
};

struct ChoiceTextParameter : TextParameter {
    ChoiceTextParameter(std::string n, std::string d, std::vector<std::string> allowed, std::uint16_t id,
                        std::int32_t r)
        : TextParameter(std::move(n), std::move(d), id, r), allowedValues(std::move(allowed)) {}
    std::vector<std::string> allowedValues;
};

// The one float selector (hours of fit).
struct ChoiceFloatParameter : Parameter, ControlBinding {
    ChoiceFloatParameter(std::string n, float d, std::vector<float> allowed, std::uint16_t id, std::int32_t r)
        : Parameter(std::move(n)), ControlBinding{id, r, nullptr}, defaultValue(d), minimum(allowed.front()),
          maximum(allowed.back()), value(d), allowedValues(std::move(allowed)) {}
    float defaultValue, minimum, maximum, value;
    std::vector<float> allowedValues;
};

// A push button: its name is the label; it has no value and is not stored.
struct ButtonControl : Parameter, ControlBinding {
    ButtonControl(std::string label, std::uint16_t id, std::int32_t r)
        : Parameter(std::move(label)), ControlBinding{id, r, nullptr} {}
};

// The six lists, in file order: bools, check boxes, integers, choice integers, strings, texts
// with a control. They decide what is read at start and what a full save writes.
struct ParameterLists {
    std::vector<BoolParameter*> bools;
    std::vector<CheckBoxParameter*> checkBoxes;
    std::vector<IntParameter*> ints;
    std::vector<ChoiceIntParameter*> choiceInts;
    std::vector<StringParameter*> strings;
    std::vector<TextParameter*> texts;
    StringParameter* programVersion = nullptr; // set to the running version by a save of defaults
};

// True when the file was absent or unusable and was created with defaults; false when read.
bool loadParameters(const std::filesystem::path& file, const ParameterLists& lists);
void saveParameters(const std::filesystem::path& file, const ParameterLists& lists, bool writeDefaults);
void updateParameter(const std::filesystem::path& file, const ParameterLists& lists, const BoolParameter& p);
void updateParameter(const std::filesystem::path& file, const ParameterLists& lists, const IntParameter& p);
void updateParameter(const std::filesystem::path& file, const ParameterLists& lists,
                     const StringParameter& p);
// A change of a parameter while the program runs: the catalogue value, the mirror the threads
// read, the window control and (unless Save::no) parameters.xml change together.
enum class Save : bool { no, yes };
void set(BoolParameter& p, bool value, Save save = Save::yes);
void set(IntParameter& p, std::int32_t value, Save save = Save::yes);
void set(StringParameter& p, std::string value, Save save = Save::yes);

// A file that exists but does not parse is kept as parameters.0.xml and removed.
void checkParameterFile(const std::filesystem::path& file);

// The catalogue: every parameter of the program with its default, range and control.
struct Catalogue;
Catalogue& catalogue();
const ParameterLists& parameterLists();
const std::vector<ButtonControl*>& buttons();
// A parameter of the catalogue by its stored name (lists and the objects in no list).
Parameter* findParameter(std::string_view name);
// A catalogue parameter by name and kind; a name the catalogue lacks is a programming error.
template <typename P>
P& parameter(std::string_view name) {
    auto* p = dynamic_cast<P*>(findParameter(name));
    if (!p) throw std::logic_error("no parameter " + std::string(name));
    return *p;
}

// The window position, read before the window exists and before the rest of the model.
struct WindowPosition {
    std::int32_t x, y;
};
std::optional<WindowPosition> readWindowPosition(const std::filesystem::path& file);

// File and folder names the program fixes at start (relative to the program folder).
namespace names {
inline constexpr const char* kFolders[] = {
    "input",       "output",        "airports",    "docs",         "stock",         "simaddon",
    "thirdparty",  "archive",       "info",        "errors",       "InsideSystems", "Steam",
    "OneStore",    "Community",     "Official",    "Official2024", "new_version",   "learned",
    "my_simaddon", "my_thirdparty", "my_regcodes", "tblo",         "fs-base"};
inline constexpr const char* kDbaseEnc = "dbase.enc";
inline constexpr const char* kRegcodesEnc = "AIG-regcodes.enc";
inline constexpr const char* kAirportsEnc = "airports.enc";
inline constexpr const char* kDbaseXml = "dbase.xml";
inline constexpr const char* kRegcodesXml = "AIG-regcodes.xml";
inline constexpr const char* kAirportsXml = "airports.xml";
inline constexpr const char* kLiveriesScanned = "LiveriesScanned.xml";
inline constexpr const char* kObjectIdList = "ObjectIdList.txt";
inline constexpr const char* kMyParkAirports = "my_park_airports.txt";
inline constexpr const char* kAirportsScanLog = "AirportsScanLog.txt";
inline constexpr const char* kParameters = "parameters.xml";
inline constexpr const char* kLog = "Log.txt";
inline constexpr const char* kTbloZip = "tblo.zip";
} // namespace names

// The common `meta` block of the program's XML files: author, version, date, copyright, sim.
void appendMeta(pugi::xml_node root);
// Accepted when it holds a non-empty copyright row; strict also wants a P3D, MSFS or sim row.
bool metaValid(pugi::xml_node root, bool strict);

std::optional<std::int32_t> readIntParameter(const pugi::xml_document& doc, const std::string& name);
std::optional<bool> readBoolParameter(const pugi::xml_document& doc, const std::string& name);
std::optional<std::string> readStringParameter(const pugi::xml_document& doc, const std::string& name);
std::optional<std::size_t> selectedIndex(const ChoiceIntParameter& p);

} // namespace orv::params
