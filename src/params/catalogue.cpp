// Every parameter of the program. Names are spelled as stored in parameters.xml.
#include <atomic>
#include <stdexcept>
#include <string>
#include <string_view>

#include "params/params.h"

namespace orv::params {

struct Catalogue {
    BoolParameter RANDOM{"RANDOM", true};
    CheckBoxParameter ALWAYS_ON_TOP{"ALWAYS_ON_TOP", false, 32771, 147};
    CheckBoxParameter OBJECTID_LIST{"OBJECTID_LIST", false, 32775, 175};
    CheckBoxParameter NAV_LIGHTS_WHILE_PARKED{"NAV_LIGHTS_WHILE_PARKED", true, 32774, 175};
    CheckBoxParameter AEROWINX{"AEROWINX", false, 32776, 203};
    CheckBoxParameter GUID_CHANGES{"GUID_CHANGES", true, 32773, 203};
    CheckBoxParameter SCAN_LIVERIES{"SCAN_LIVERIES", true, 32798, 147};
    CheckBoxParameter LIG_AUTOMATIC{"LIG_AUTOMATIC", true, 32799, 147};
    CheckBoxParameter LIG_PRIORITIZE{"LIG_PRIORITIZE", true, 32800, 147};
    CheckBoxParameter SCAN_AIRPORTS{"SCAN_AIRPORTS", true, 32802, 175};
    CheckBoxParameter LIGHT_AIRCRAFT{"LIGHT_AIRCRAFT", true, 32809, 203};
    CheckBoxParameter HELICOPTERS{"HELICOPTERS", true, 32810, 203};
    CheckBoxParameter HIGH_PERF_AIRCRAFT{"HIGH_PERF_AIRCRAFT", true, 32811, 203};
    CheckBoxParameter AUTO_RANGE{"AUTO_RANGE", true, 32819, 231};
    CheckBoxParameter AIRBORNE_ONLY{"AIRBORNE_ONLY", false, 32821, 231};
    CheckBoxParameter COLLISION_USER_GND{"COLLISION_USER_GND", true, 32834, 287};
    CheckBoxParameter COLLISION_USER_AIR{"COLLISION_USER_AIR", true, 32833, 287};
    CheckBoxParameter COLLISION_LIVE_PARKED_GND{"COLLISION_LIVE_PARKED_GND", false, 32835, 287};
    CheckBoxParameter STRAIGHT_PBS_ONLY{"STRAIGHT_PBS_ONLY", false, 32855, 315};
    CheckBoxParameter INITIAL_LOAD_ONLY{"INITIAL_LOAD_ONLY", false, 32851, 371};
    CheckBoxParameter WEEK{"WEEK", false, 32853, 371};
    CheckBoxParameter PARK_SOFT{"PARK_SOFT", false, 32852, 371};
    IntParameter MAIN_WINDOW_X{"MAIN_WINDOW_X", 400, -30000, 30000};
    IntParameter MAIN_WINDOW_Y{"MAIN_WINDOW_Y", 20, -30000, 30000};
    IntParameter LAST_EPOCH_TIME{"LAST_EPOCH_TIME:", 0, 0, 2147483647};
    IntParameter CUSTOM_PARKING_PERCENTAGE{"CUSTOM_PARKING_PERCENTAGE", -1, -1, 100};
    IntParameter HOLDING_THRESHOLD_METERS{"HOLDING_THRESHOLD_METERS", 250, 10, 4000};
    IntParameter MAX_HOLDING_MINUTES{"MAX_HOLDING_MINUTES", 20, 1, 60};
    IntParameter MAX_FIT{"MAX_FIT", 47, 0, 47};
    ChoiceIntParameter MATCHING_DEPTH{"MATCHING_DEPTH", 4, {1, 2, 3, 4}, 32808, 203};
    ChoiceIntParameter RANGE{
        "RANGE", 40, {2, 3, 4, 5, 6, 8, 10, 12, 14, 16, 18, 20, 25, 30, 35, 40, 50, 65, 80, 100}, 32818, 231};
    ChoiceIntParameter AR_ABOVE_HEIGHT{
        "AR_ABOVE_HEIGHT",
        48000,
        {18000, 21000, 24000, 27000, 30000, 33000, 36000, 39000, 42000, 45000, 48000},
        32820,
        231};
    ChoiceIntParameter MAX_PARK_SEL{"MAX_PARK_SEL", 500, {0, 10, 25, 50, 75, 100, 500}, 32848, 315};
    ChoiceIntParameter MAX_LIVE_SEL{"MAX_LIVE_SEL", 500, {0, 10, 25, 50, 75, 100, 500}, 32849, 315};
    ChoiceIntParameter AIRP_RANGE{"AIRP_RANGE", 20, {5, 10, 15, 20, 25, 30}, 32840, 343};
    ChoiceIntParameter AIRP_HEIGHT{"AIRP_HEIGHT",
                                   18000,
                                   {2000, 4000, 6000, 8000, 10000, 12000, 14000, 16000, 18000, 36000, 48000},
                                   32841,
                                   343};
    StringParameter PROGRAM_VERSION{"PROGRAM_VERSION", ""};
    StringParameter MSFS_INSTALL_PATH{"MSFS_INSTALL_PATH", ""};
    StringParameter PORT_NUMBER{"PORT_NUMBER", "10747"};
    StringParameter lfolder0{"lfolder0", ""};
    StringParameter lfolder1{"lfolder1", ""};
    StringParameter lfolder2{"lfolder2", ""};
    StringParameter lfolder3{"lfolder3", ""};
    StringParameter lfolder4{"lfolder4", ""};
    StringParameter lfolder5{"lfolder5", ""};
    StringParameter lfolder6{"lfolder6", ""};
    StringParameter lfolder7{"lfolder7", ""};
    StringParameter lfolder8{"lfolder8", ""};
    StringParameter lfolder9{"lfolder9", ""};
    StringParameter AIG_VERSION{"AIG_VERSION", ""};
    StringParameter DBASE_VERSION{"DBASE_VERSION", ""};
    StringParameter AIRPORTS_VERSION{"AIRPORTS_VERSION", ""};
    StringParameter LIV_SCAN_VERSION{"LIV_SCAN_VERSION", ""};
    StringParameter ADDONS_SCAN_VERSION{"ADDONS_SCAN_VERSION", ""};
    StringParameter MYSIMADDON24_VERSION{"MYSIMADDON24_VERSION", ""};
    StringParameter MSFS_2024_INSTALL_PATH{"MSFS_2024_INSTALL_PATH", ""};
    StringParameter DATA_SITE{"DATA_SITE", ""}; // base URL of the data site; empty: no downloads
    ChoiceTextParameter AI_PACKAGE_SELECTOR{
        "AI_PACKAGE_SELECTOR",
        "AIG, FSLTL, JF, MTL",
        {"AIG, FSLTL, JF, MTL", "AIG, FSLTL, MTL, JF", "AIG, JF, FSLTL, MTL", "AIG, JF, MTL, FSLTL",
         "AIG, MTL, FSLTL, JF", "AIG, MTL, JF, FSLTL", "FSLTL, AIG, JF, MTL", "FSLTL, AIG, MTL, JF",
         "FSLTL, JF, AIG, MTL", "FSLTL, JF, MTL, AIG", "FSLTL, MTL, AIG, JF", "FSLTL, MTL, JF, AIG",
         "JF, AIG, FSLTL, MTL", "JF, AIG, MTL, FSLTL", "JF, FSLTL, AIG, MTL", "JF, FSLTL, MTL, AIG",
         "JF, MTL, AIG, FSLTL", "JF, MTL, FSLTL, AIG", "MTL, AIG, FSLTL, JF", "MTL, AIG, JF, FSLTL",
         "MTL, FSLTL, AIG, JF", "MTL, FSLTL, JF, AIG", "MTL, JF, AIG, FSLTL", "MTL, JF, FSLTL, AIG"},
        32790,
        147};
    TextParameter DESTINATION{"DESTINATION", "", 32839, 343};
    TextParameter BLOCK_CALLSIGN{"BLOCK_CALLSIGN", "", 32828, 259};
    ChoiceTextParameter SIM_CHOICE{"SIM_CHOICE", "MSFS 2020", {"MSFS 2020", "MSFS 2024"}, 32789, 119};
    // In no list: not read at start, written by single updates.
    TextParameter ALL_INSTALL_PATH{"ALL_INSTALL_PATH", "", 32788, 119};
    ChoiceTextParameter CALLSIGN_2_OBJECTID{"CALLSIGN_2_OBJECTID", "", {}, 32831, 259};
    ChoiceIntParameter parking_percentage{
        "parking_percentage",
        30,
        {0, 5, 10, 15, 20, 25, 30, 35, 40, 45, 50, 55, 60, 65, 70, 75, 80, 85, 90, 95, 100},
        32850,
        371};
    ChoiceFloatParameter MAX_FIT_FL{
        "MAX_FIT_FL",
        24.0f,
        {0.5f, 1, 1.5f, 2, 2.5f, 3, 3.5f, 4, 4.5f, 5, 6, 7, 8, 9, 10, 12, 15, 18, 21, 24},
        32854,
        371};
    ButtonControl b_Flush_static{"Flush static", 32857, 369};
    ButtonControl b_tblo_zip{"tblo.zip", 32804, 175};
    ButtonControl b_Unblock{"Unblock", 32829, 257};
    ButtonControl b_cs__oid_{"cs->oid:", 32830, 257};
    ButtonControl b_Block{"Block", 32832, 257};
    ButtonControl b_Now{"Now", 32847, 313};
    ButtonControl b_Re_read{"Re-read", 32838, 341};

    ParameterLists lists;
    std::vector<ButtonControl*> buttons;

    Catalogue() {
        lists.bools = {&RANDOM};
        lists.checkBoxes = {&ALWAYS_ON_TOP,
                            &OBJECTID_LIST,
                            &NAV_LIGHTS_WHILE_PARKED,
                            &AEROWINX,
                            &GUID_CHANGES,
                            &SCAN_LIVERIES,
                            &LIG_AUTOMATIC,
                            &LIG_PRIORITIZE,
                            &SCAN_AIRPORTS,
                            &LIGHT_AIRCRAFT,
                            &HELICOPTERS,
                            &HIGH_PERF_AIRCRAFT,
                            &AUTO_RANGE,
                            &AIRBORNE_ONLY,
                            &COLLISION_USER_GND,
                            &COLLISION_USER_AIR,
                            &COLLISION_LIVE_PARKED_GND,
                            &STRAIGHT_PBS_ONLY,
                            &INITIAL_LOAD_ONLY,
                            &WEEK,
                            &PARK_SOFT};
        lists.ints = {&MAIN_WINDOW_X,
                      &MAIN_WINDOW_Y,
                      &LAST_EPOCH_TIME,
                      &CUSTOM_PARKING_PERCENTAGE,
                      &HOLDING_THRESHOLD_METERS,
                      &MAX_HOLDING_MINUTES,
                      &MAX_FIT};
        lists.choiceInts = {&MATCHING_DEPTH, &RANGE,      &AR_ABOVE_HEIGHT, &MAX_PARK_SEL,
                            &MAX_LIVE_SEL,   &AIRP_RANGE, &AIRP_HEIGHT};
        lists.strings = {&PROGRAM_VERSION,
                         &MSFS_INSTALL_PATH,
                         &PORT_NUMBER,
                         &lfolder0,
                         &lfolder1,
                         &lfolder2,
                         &lfolder3,
                         &lfolder4,
                         &lfolder5,
                         &lfolder6,
                         &lfolder7,
                         &lfolder8,
                         &lfolder9,
                         &AIG_VERSION,
                         &DBASE_VERSION,
                         &AIRPORTS_VERSION,
                         &LIV_SCAN_VERSION,
                         &ADDONS_SCAN_VERSION,
                         &MYSIMADDON24_VERSION,
                         &MSFS_2024_INSTALL_PATH,
                         &DATA_SITE,
                         &AI_PACKAGE_SELECTOR,
                         &DESTINATION};
        lists.texts = {&BLOCK_CALLSIGN, &SIM_CHOICE};
        lists.programVersion = &PROGRAM_VERSION;
        buttons = {&b_Flush_static, &b_tblo_zip, &b_Unblock, &b_cs__oid_, &b_Block, &b_Now, &b_Re_read};
    }
};

Catalogue& catalogue() {
    static Catalogue c;
    return c;
}

const ParameterLists& parameterLists() {
    return catalogue().lists;
}
const std::vector<ButtonControl*>& buttons() {
    return catalogue().buttons;
}

Parameter* findParameter(std::string_view name) {
    auto& c = catalogue();
    Parameter* found = nullptr;
    const auto look = [&](auto& list) {
        for (auto* p : list)
            if (!found && p->name == name) found = p;
    };
    look(c.lists.bools);
    look(c.lists.checkBoxes);
    look(c.lists.ints);
    look(c.lists.choiceInts);
    look(c.lists.strings);
    look(c.lists.texts);
    for (Parameter* p : std::initializer_list<Parameter*>{&c.ALL_INSTALL_PATH, &c.CALLSIGN_2_OBJECTID,
                                                          &c.parking_percentage, &c.MAX_FIT_FL})
        if (!found && p->name == name) found = p;
    return found;
}

namespace {

// Each value the threads read without a lock, beside the catalogue entry it mirrors.
struct MirrorEntry {
    const Parameter* source;
    std::atomic<bool>* flag = nullptr;
    std::atomic<int>* number = nullptr;
    std::string* text = nullptr;
};

std::vector<MirrorEntry> mirrorTable(Parameters& m) {
    auto& c = catalogue();
    return {{&c.RANGE, nullptr, &m.RANGE},
            {&c.AUTO_RANGE, &m.AUTO_RANGE},
            {&c.AR_ABOVE_HEIGHT, nullptr, &m.AR_ABOVE_HEIGHT},
            {&c.AIRP_HEIGHT, nullptr, &m.AIRP_HEIGHT},
            {&c.AIRBORNE_ONLY, &m.AIRBORNE_ONLY},
            {&c.SCAN_LIVERIES, &m.SCAN_LIVERIES},
            {&c.SCAN_AIRPORTS, &m.SCAN_AIRPORTS},
            {&c.INITIAL_LOAD_ONLY, &m.INITIAL_LOAD_ONLY},
            {&c.OBJECTID_LIST, &m.OBJECTID_LIST},
            {&c.AEROWINX, &m.AEROWINX},
            {&c.ALWAYS_ON_TOP, &m.ALWAYS_ON_TOP},
            {&c.MATCHING_DEPTH, nullptr, &m.MATCHING_DEPTH},
            {&c.RANDOM, &m.RANDOM},
            {&c.MAX_LIVE_SEL, nullptr, &m.MAX_LIVE_SEL},
            {&c.GUID_CHANGES, &m.GUID_CHANGES},
            {&c.NAV_LIGHTS_WHILE_PARKED, &m.NAV_LIGHTS_WHILE_PARKED},
            {&c.LIGHT_AIRCRAFT, &m.LIGHT_AIRCRAFT},
            {&c.HELICOPTERS, &m.HELICOPTERS},
            {&c.HIGH_PERF_AIRCRAFT, &m.HIGH_PERF_AIRCRAFT},
            {&c.HOLDING_THRESHOLD_METERS, nullptr, &m.HOLDING_THRESHOLD_METERS},
            {&c.MAX_HOLDING_MINUTES, nullptr, &m.MAX_HOLDING_MINUTES},
            {&c.STRAIGHT_PBS_ONLY, &m.STRAIGHT_PBS_ONLY},
            {&c.COLLISION_USER_GND, &m.COLLISION_USER_GND},
            {&c.COLLISION_USER_AIR, &m.COLLISION_USER_AIR},
            {&c.COLLISION_LIVE_PARKED_GND, &m.COLLISION_LIVE_PARKED_GND},
            {&c.MAX_PARK_SEL, nullptr, &m.MAX_PARK_SEL},
            {&c.DESTINATION, nullptr, nullptr, &m.DESTINATION},
            {&c.BLOCK_CALLSIGN, nullptr, nullptr, &m.BLOCK_CALLSIGN}};
}

int portNumber(const std::string& text) {
    try {
        return std::stoi(text);
    } catch (const std::exception&) {
        return 10747;
    }
}

// Copies the mirrored values of the catalogue: all of them, or only those of `only`.
void copyMirrored(Parameters& m, const Parameter* only) {
    for (const auto& e : mirrorTable(m)) {
        if (only && e.source != only) continue;
        if (e.flag) e.flag->store(dynamic_cast<const BoolParameter&>(*e.source).value);
        if (e.number) e.number->store(dynamic_cast<const IntParameter&>(*e.source).value);
        if (e.text) *e.text = dynamic_cast<const StringParameter&>(*e.source).value;
    }
    const auto& port = catalogue().PORT_NUMBER;
    if (!only || only == &port) m.PORT_NUMBER = portNumber(port.value);
}

} // namespace

void Parameters::takeFromCatalogue() {
    copyMirrored(*this, nullptr);
    radiusNm = RANGE.load();
}

void Parameters::mirror(const Parameter& p) {
    copyMirrored(*this, &p);
}

} // namespace orv::params
