// Livery matching: a ladder of ever looser questions from the registration down to any livery
// of the same category; the step that matched is counted and logged.
#include <algorithm>
#include <random>

#include <fmt/format.h>

#include "core/core.h"
#include "liveries/liveries.h"
#include "params/params.h"

namespace orv::liveries {

std::array<std::int32_t, 7> gMatchStepCount{};

namespace {

// Titles the simulator could not create, refused for the rest of the process; the engine's thread
// alone adds and reads them.
struct Refused {
    StringSet titles;
    std::vector<std::string> inOrder;
};
Refused refused;
thread_local std::mt19937 rng{std::random_device{}()};

bool randomOn() {
    return params::gParams.RANDOM.load(std::memory_order_relaxed);
}
int depth() {
    return params::gParams.MATCHING_DEPTH.load(std::memory_order_relaxed);
}
std::size_t randomIndex(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng);
}
bool isSpecial(std::string_view title) {
    const auto& s = gStore.specialTitles;
    return std::find(s.begin(), s.end(), title) != s.end();
}
int cargoIndex(const MatchAircraft& a) {
    return a.cargo ? 1 : 0;
}

void pickTitle(MatchAircraft& a, const TitleViews& titles) {
    if (titles.empty()) return;
    const bool random = randomOn() && titles.size() > 1;
    for (int i = 0; i < 5; ++i) {
        a.title = titles[random ? randomIndex(titles.size()) : 0];
        if (!isSpecial(a.title)) return;
    }
    TitleViews plain;
    for (const auto t : titles)
        if (!isSpecial(t)) plain.push_back(t);
    if (!plain.empty()) a.title = plain[randomOn() ? randomIndex(plain.size()) : 0];
}

bool titlesOfKey(MatchAircraft& a, refdata::AirlineId airline, refdata::ModelId model, int index) {
    const auto& byAirline = gStore.airlineTitles[static_cast<std::size_t>(index)];
    const auto al = byAirline.find(airline);
    if (al == byAirline.end()) return false;
    const auto m = al->second.find(model);
    if (m == al->second.end()) return false;
    pickTitle(a, m->second);
    return !a.title.empty();
}

bool airlineModelLivery(MatchAircraft& a, refdata::AirlineId airline, refdata::ModelId model) {
    if (titlesOfKey(a, airline, model, cargoIndex(a))) return true;
    return a.cargo && titlesOfKey(a, airline, model, 0); // a freighter may wear its airline's pax paint
}

bool modelLivery(MatchAircraft& a, refdata::ModelId model) {
    const auto& generic = gStore.genericTitles[static_cast<std::size_t>(cargoIndex(a))];
    const auto it = generic.find(model);
    if (it == generic.end()) return false;
    pickTitle(a, it->second);
    return !a.title.empty();
}

bool liveryByRegcode(MatchAircraft& a) {
    if (a.regcode.empty()) return false;
    const auto it = gStore.regcodeTitles.find(a.regcode);
    if (it == gStore.regcodeTitles.end()) return false;
    a.title = it->second;
    return true;
}

bool similarLivery(MatchAircraft& a, refdata::AirlineId airline) {
    const refdata::ModelId model = keyModel(a.key);
    for (const refdata::ModelId m : similarOfAirline(refdata::airlineModelKey(airline, model))) {
        if (refdata::category(m) != a.category) continue;
        if (titlesOfKey(a, airline, m, cargoIndex(a))) return true;
        if (a.cargo && titlesOfKey(a, airline, m, 0)) return true;
    }
    return false;
}

bool acceptLive(MatchAircraft& a, int step) {
    if (refused.titles.contains(a.title)) {
        a.title = {};
        return false;
    }
    ++gMatchStepCount[static_cast<std::size_t>(step)];
    a.step = static_cast<std::int8_t>(step);
    core::log(fmt::format("          {} ={}= {}", a.description.data(), step, a.title));
    a.fsltl = a.title.find("FSLTL_") != std::string_view::npos;
    return true;
}

// A refused title counts as no title, for the static path.
bool usable(MatchAircraft& a) {
    if (a.title.empty()) return false;
    if (!refused.titles.contains(a.title)) return true;
    a.title = {};
    return false;
}

void genericLivery(MatchAircraft& a, int& step) {
    const int d = depth();
    const refdata::ModelId model = keyModel(a.key);
    const refdata::AirlineId zzz = refdata::airlineId("ZZZ");
    if (a.title.empty() && d == 4 && airlineModelLivery(a, zzz, model)) {
        step = 4;
        return;
    }
    if (!a.title.empty()) return;
    if (a.category == refdata::Category::Large || a.category == refdata::Category::Heavy ||
        a.category == refdata::Category::HighPerf)
        return;
    if (d >= 3 && refdata::airlineCode(keyAirline(a.key)) != "PVT" && airlineModelLivery(a, zzz, model)) {
        step = 4;
        return;
    }
    if (modelLivery(a, model)) {
        step = 5;
        return;
    }
    if (const auto it = gStore.similarInstalled.find(model); it != gStore.similarInstalled.end()) {
        auto& models = it->second; // shuffled where it lies: a match copies nothing
        if (randomOn()) std::shuffle(models.begin(), models.end(), rng);
        for (const refdata::ModelId m : models)
            if (modelLivery(a, m)) {
                step = 6;
                return;
            }
        return;
    }
    const int slot = a.category == refdata::Category::Light     ? 0
                     : a.category == refdata::Category::Buzjets ? 1
                                                                : 2;
    const auto& list = gStore.categoryModels[static_cast<std::size_t>(slot)];
    if (!list.empty() && modelLivery(a, list[randomOn() ? randomIndex(list.size()) : 0])) step = 6;
}

} // namespace

refdata::AirlineId keyAirline(refdata::AirlineModelKey key) noexcept {
    return static_cast<refdata::AirlineId>(key & 0xFFFF);
}
refdata::ModelId keyModel(refdata::AirlineModelKey key) noexcept {
    return static_cast<refdata::ModelId>(key >> 16);
}

const std::vector<refdata::ModelId>& similarOfAirline(refdata::AirlineModelKey key) {
    static const std::vector<refdata::ModelId> kNone;
    const auto al = gStore.similarByAirline.find(keyAirline(key));
    if (al == gStore.similarByAirline.end()) return kNone;
    const auto m = al->second.find(keyModel(key));
    if (m == al->second.end()) return kNone;
    // Shuffled where it lies: a match copies nothing.
    if (randomOn()) std::shuffle(m->second.begin(), m->second.end(), rng);
    return m->second;
}

void matchLiveLivery(MatchAircraft& a) {
    a.title = {};
    if (liveryByRegcode(a) && acceptLive(a, gStore.uniqueRegcodes.contains(a.regcode) ? 0 : 1)) return;
    const int d = depth();
    if (d < 2) return;
    const refdata::AirlineId airline = keyAirline(a.key);
    const refdata::ModelId model = keyModel(a.key);
    const std::string_view airlineText = refdata::airlineCode(airline);
    if (airlineText == "PVT" && airlineModelLivery(a, refdata::airlineId("ZZZ"), model) && acceptLive(a, 4))
        return;
    const std::string r = refdata::airlineOfRegcode(a.regcode);
    const refdata::AirlineId recordAirline = r.empty() ? refdata::AirlineId{0} : refdata::airlineId(r);
    if (!airlineText.empty() && airlineModelLivery(a, airline, model) && acceptLive(a, 2)) return;
    if (recordAirline && airlineModelLivery(a, recordAirline, model) && acceptLive(a, 2)) return;
    if (d < 3) return;
    if (!airlineText.empty() && similarLivery(a, airline) && acceptLive(a, 3)) return;
    if (recordAirline && similarLivery(a, recordAirline) && acceptLive(a, 3)) return;
    int step = 0;
    genericLivery(a, step);
    if (!a.title.empty()) acceptLive(a, step);
}

bool matchStaticLivery(MatchAircraft& a, std::string_view standName, bool standCargo) {
    if (!a.title.empty()) {
        core::log(fmt::format("          {} =s= {}", a.description.data(), a.title));
        return true;
    }
    a.cargo = standCargo;
    const auto found = [&](int step) {
        core::log(fmt::format("          {} ={}= {}", a.description.data(), step, a.title));
        return true;
    };
    const auto none = [&] {
        core::log(fmt::format("{:8}: {} no livery match ...", standName, a.description.data()));
        return false;
    };
    if (liveryByRegcode(a) && usable(a)) return found(gStore.uniqueRegcodes.contains(a.regcode) ? 0 : 1);
    const int d = depth();
    if (d < 2) return none();
    const refdata::AirlineId airline = keyAirline(a.key);
    const refdata::ModelId model = keyModel(a.key);
    const refdata::AirlineId zzz = refdata::airlineId("ZZZ");
    if (refdata::airlineCode(airline) == "PVT" && airlineModelLivery(a, zzz, model) && usable(a))
        return found(4);
    const std::string r = refdata::airlineOfRegcode(a.regcode);
    const refdata::AirlineId recordAirline = r.empty() ? refdata::AirlineId{0} : refdata::airlineId(r);
    if (airlineModelLivery(a, airline, model) && usable(a)) return found(2);
    if (recordAirline && airlineModelLivery(a, recordAirline, model) && usable(a)) return found(2);
    if (d >= 3) {
        for (const refdata::AirlineId al : {airline, recordAirline}) {
            if (!al) continue;
            for (const refdata::ModelId m : similarOfAirline(refdata::airlineModelKey(al, model)))
                if (airlineModelLivery(a, al, m) && usable(a)) return found(3);
        }
        int step = 0;
        genericLivery(a, step);
        if (usable(a)) return found(step);
    }
    return none();
}

void refuseTitle(std::string_view title) {
    if (refused.titles.emplace(title).second) refused.inOrder.emplace_back(title);
}

void logMatchingSummary() {
    if (std::all_of(gMatchStepCount.begin(), gMatchStepCount.end(), [](std::int32_t c) { return c == 0; }))
        return;
    const std::string banner = " live traffic livery matching summary ";
    const std::size_t side = (100 - banner.size()) / 2;
    std::string text =
        "\n" + std::string(side, '*') + banner + std::string(side, '*') + "\nMatches at step: ";
    for (std::size_t i = 0; i < gMatchStepCount.size(); ++i)
        text += fmt::format("\n  {}: {}", i, gMatchStepCount[i]);
    if (!refused.inOrder.empty()) {
        text += "\n\nCould not be created";
        for (const auto& t : refused.inOrder) text += "\n  " + t;
    }
    text += "\n" + std::string(side * 2 + banner.size(), '*') + "\n";
    core::log(text);
}

void resetMatching() {
    gMatchStepCount.fill(0);
    refused.titles.clear();
    refused.inOrder.clear();
}

void seedMatching(std::uint32_t seed) {
    rng.seed(seed);
}

} // namespace orv::liveries
