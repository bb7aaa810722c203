// Livery matching: a ladder of ever looser questions from the registration down to any livery
// of the same category; the step that matched is counted and logged.
#include <algorithm>
#include <random>

#include <fmt/format.h>

#include "app/app.h"
#include "liveries/liveries.h"
#include "params/params.h"

namespace orv::liveries {

std::array<std::int32_t, 7> gMatchStepCount{};

namespace {

StringSet unusableTitles;
std::vector<std::string> refusedInOrder;
thread_local std::mt19937 rng{std::random_device{}()};

bool randomOn() {
    return gParams.RANDOM.load(std::memory_order_relaxed);
}
int depth() {
    return gParams.MATCHING_DEPTH.load(std::memory_order_relaxed);
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

void lf_pickTitle(MatchAircraft& a, const TitleViews& titles) {
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

bool lf_titlesOfKey(MatchAircraft& a, AirlineId airline, ModelId model, int index) {
    const auto& byAirline = gStore.airlineTitles[static_cast<std::size_t>(index)];
    const auto al = byAirline.find(airline);
    if (al == byAirline.end()) return false;
    const auto m = al->second.find(model);
    if (m == al->second.end()) return false;
    lf_pickTitle(a, m->second);
    return !a.title.empty();
}

bool lf_airlineModelLivery(MatchAircraft& a, AirlineId airline, ModelId model) {
    if (lf_titlesOfKey(a, airline, model, cargoIndex(a))) return true;
    return a.cargo && lf_titlesOfKey(a, airline, model, 0); // a freighter may wear its airline's pax paint
}

bool lf_modelLivery(MatchAircraft& a, ModelId model) {
    const auto& generic = gStore.genericTitles[static_cast<std::size_t>(cargoIndex(a))];
    const auto it = generic.find(model);
    if (it == generic.end()) return false;
    lf_pickTitle(a, it->second);
    return !a.title.empty();
}

bool lf_liveryByRegcode(MatchAircraft& a) {
    if (a.regcode.empty()) return false;
    const auto it = gStore.regcodeTitles.find(a.regcode);
    if (it == gStore.regcodeTitles.end()) return false;
    a.title = it->second;
    return true;
}

bool lf_similarLivery(MatchAircraft& a, AirlineId airline) {
    const ModelId model = gf_keyModel(a.key);
    for (const ModelId m : gf_similarOfAirline(gf_airlineModelKey(airline, model))) {
        if (gf_category(m) != a.category) continue;
        if (lf_titlesOfKey(a, airline, m, cargoIndex(a))) return true;
        if (a.cargo && lf_titlesOfKey(a, airline, m, 0)) return true;
    }
    return false;
}

bool lf_acceptLive(MatchAircraft& a, int step) {
    if (unusableTitles.contains(a.title)) {
        a.title = {};
        return false;
    }
    ++gMatchStepCount[static_cast<std::size_t>(step)];
    gf_log(fmt::format("          {} ={}= {}", a.description, step, a.title));
    a.fsltl = a.title.find("FSLTL_") != std::string_view::npos;
    return true;
}

// A refused title counts as no title, for the static path.
bool usable(MatchAircraft& a) {
    if (a.title.empty()) return false;
    if (!unusableTitles.contains(a.title)) return true;
    a.title = {};
    return false;
}

void lf_genericLivery(MatchAircraft& a, int& step) {
    const int d = depth();
    const ModelId model = gf_keyModel(a.key);
    const AirlineId zzz = gf_airlineId("ZZZ");
    if (a.title.empty() && d == 4 && lf_airlineModelLivery(a, zzz, model)) {
        step = 4;
        return;
    }
    if (!a.title.empty()) return;
    if (a.category == Category::Large || a.category == Category::Heavy || a.category == Category::HighPerf)
        return;
    if (d >= 3 && gf_airlineCode(gf_keyAirline(a.key)) != "PVT" && lf_airlineModelLivery(a, zzz, model)) {
        step = 4;
        return;
    }
    if (lf_modelLivery(a, model)) {
        step = 5;
        return;
    }
    std::vector<ModelId> models;
    if (const auto it = gStore.similarInstalled.find(model); it != gStore.similarInstalled.end()) {
        models = it->second;
        if (randomOn()) std::shuffle(models.begin(), models.end(), rng);
    } else {
        const int slot = a.category == Category::Light ? 0 : a.category == Category::Buzjets ? 1 : 2;
        const auto& list = gStore.categoryModels[static_cast<std::size_t>(slot)];
        if (!list.empty()) models.push_back(list[randomOn() ? randomIndex(list.size()) : 0]);
    }
    for (const ModelId m : models)
        if (lf_modelLivery(a, m)) {
            step = 6;
            return;
        }
}

} // namespace

AirlineId gf_keyAirline(AirlineModelKey key) noexcept {
    return static_cast<AirlineId>(key & 0xFFFF);
}
ModelId gf_keyModel(AirlineModelKey key) noexcept {
    return static_cast<ModelId>(key >> 16);
}

std::vector<ModelId> gf_similarOfAirline(AirlineModelKey key) {
    const auto al = gStore.similarByAirline.find(gf_keyAirline(key));
    if (al == gStore.similarByAirline.end()) return {};
    const auto m = al->second.find(gf_keyModel(key));
    if (m == al->second.end()) return {};
    auto list = m->second;
    if (randomOn()) std::shuffle(list.begin(), list.end(), rng);
    return list;
}

void gf_matchLiveLivery(MatchAircraft& a) {
    a.title = {};
    if (lf_liveryByRegcode(a) && lf_acceptLive(a, gStore.uniqueRegcodes.contains(a.regcode) ? 0 : 1)) return;
    const int d = depth();
    if (d < 2) return;
    const AirlineId airline = gf_keyAirline(a.key);
    const ModelId model = gf_keyModel(a.key);
    const std::string_view airlineText = gf_airlineCode(airline);
    if (airlineText == "PVT" && lf_airlineModelLivery(a, gf_airlineId("ZZZ"), model) && lf_acceptLive(a, 4))
        return;
    const std::string r = gf_airlineOfRegcode(a.regcode);
    const AirlineId recordAirline = r.empty() ? AirlineId{0} : gf_airlineId(r);
    if (!airlineText.empty() && lf_airlineModelLivery(a, airline, model) && lf_acceptLive(a, 2)) return;
    if (recordAirline && lf_airlineModelLivery(a, recordAirline, model) && lf_acceptLive(a, 2)) return;
    if (d < 3) return;
    if (!airlineText.empty() && lf_similarLivery(a, airline) && lf_acceptLive(a, 3)) return;
    if (recordAirline && lf_similarLivery(a, recordAirline) && lf_acceptLive(a, 3)) return;
    int step = 0;
    lf_genericLivery(a, step);
    if (!a.title.empty()) lf_acceptLive(a, step);
}

bool gf_matchStaticLivery(MatchAircraft& a, std::string_view standName, bool standCargo) {
    if (!a.title.empty()) {
        gf_log(fmt::format("          {} =s= {}", a.description, a.title));
        return true;
    }
    a.cargo = standCargo;
    const auto found = [&](int step) {
        gf_log(fmt::format("          {} ={}= {}", a.description, step, a.title));
        return true;
    };
    const auto none = [&] {
        gf_log(fmt::format("{:8}: {} no livery match ...", standName, a.description));
        return false;
    };
    if (lf_liveryByRegcode(a) && usable(a)) return found(gStore.uniqueRegcodes.contains(a.regcode) ? 0 : 1);
    const int d = depth();
    if (d < 2) return none();
    const AirlineId airline = gf_keyAirline(a.key);
    const ModelId model = gf_keyModel(a.key);
    const AirlineId zzz = gf_airlineId("ZZZ");
    if (gf_airlineCode(airline) == "PVT" && lf_airlineModelLivery(a, zzz, model) && usable(a))
        return found(4);
    const std::string r = gf_airlineOfRegcode(a.regcode);
    const AirlineId recordAirline = r.empty() ? AirlineId{0} : gf_airlineId(r);
    if (lf_airlineModelLivery(a, airline, model) && usable(a)) return found(2);
    if (recordAirline && lf_airlineModelLivery(a, recordAirline, model) && usable(a)) return found(2);
    if (d >= 3) {
        for (const AirlineId al : {airline, recordAirline}) {
            if (!al) continue;
            for (const ModelId m : gf_similarOfAirline(gf_airlineModelKey(al, model)))
                if (lf_airlineModelLivery(a, al, m) && usable(a)) return found(3);
        }
        int step = 0;
        lf_genericLivery(a, step);
        if (usable(a)) return found(step);
    }
    return none();
}

void gf_refuseTitle(std::string_view title) {
    if (unusableTitles.emplace(title).second) refusedInOrder.emplace_back(title);
}

void gf_logMatchingSummary() {
    if (std::all_of(gMatchStepCount.begin(), gMatchStepCount.end(), [](std::int32_t c) { return c == 0; }))
        return;
    const std::string banner = " live traffic livery matching summary ";
    const std::size_t side = (100 - banner.size()) / 2;
    std::string text =
        "\n" + std::string(side, '*') + banner + std::string(side, '*') + "\nMatches at step: ";
    for (std::size_t i = 0; i < gMatchStepCount.size(); ++i)
        text += fmt::format("\n  {}: {}", i, gMatchStepCount[i]);
    if (!refusedInOrder.empty()) {
        text += "\n\nCould not be created";
        for (const auto& t : refusedInOrder) text += "\n  " + t;
    }
    text += "\n" + std::string(side * 2 + banner.size(), '*') + "\n";
    gf_log(text);
}

void gf_resetMatching() {
    gMatchStepCount.fill(0);
    unusableTitles.clear();
    refusedInOrder.clear();
}

void gf_seedMatching(std::uint32_t seed) {
    rng.seed(seed);
}

} // namespace orv::liveries
