#include <algorithm>
#include <unordered_map>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "core/core.h"
#include "refdata/refdata.h"

namespace orv::refdata {

namespace {

struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept { return static_cast<std::size_t>(fnv1a(s)); }
};

// The reference database: filled on the worker at start, read without a lock afterwards.
struct Database {
    ReferenceDatabase db;
    // The handles of the database's airlines, for look-ups that take no lock and add nothing.
    std::unordered_map<std::string, AirlineId, TextHash, std::equal_to<>> airlineIds;
    std::array<double, kHalfSpanTableSize> halfSpanTable{};
    double largestHalfSpanNm = 0.0;
};
Database database;

// Items of a list attribute: blanks around an item dropped, empty items ignored.
std::vector<std::string> items(std::string_view list) {
    std::vector<std::string> out;
    for (auto& s : core::splitList(list))
        if (!s.empty()) out.push_back(std::move(s));
    return out;
}

pugi::xml_node section(const pugi::xml_node& root, const char* name, bool required) {
    const auto s = root.child(name);
    if (!s && required) throw core::UserErrorException(61, std::string("Missing section: ") + name);
    return s;
}

// A required list section: every element's attribute split into the set; some item must exist.
std::set<std::string> readList(const pugi::xml_node& root, const char* sec, const char* element,
                               const char* attr) {
    std::set<std::string> out;
    for (const auto e : section(root, sec, true).children(element))
        for (auto& i : items(e.attribute(attr).as_string())) out.insert(std::move(i));
    if (out.empty())
        throw core::UserErrorException(
            61, fmt::format("In XML file section [{}], element [{}], attribute [{}] is empty.", sec, element,
                            attr));
    return out;
}

std::vector<Thirdparty> readThirdparties(const pugi::xml_node& root, const char* sec, const char* element) {
    std::vector<Thirdparty> out;
    for (const auto e : root.child(sec).children(element))
        out.push_back({e.attribute("pub").as_string(), items(e.attribute("arpts").as_string())});
    return out;
}

void readAll(const pugi::xml_node& root) {
    database.db.models = readList(root, "aircrafts", "aircraft", "types");
    core::log(fmt::format("\n{:5} ICAO model codes", database.db.models.size()));
    database.db.cargoTypes = readList(root, "cargo_types", "cargo_type", "types");
    modelId("");
    for (const auto& m : database.db.models) modelId(m); // handles follow the sorted code order

    const std::pair<const char*, const char*> sections[] = {{"buzjet", "bzj"},
                                                            {"large", "lar"},
                                                            {"heavy", "hvy"},
                                                            {"high_performance", "hpf"},
                                                            {"rotorcraft", "rot"}};
    const Category cats[] = {Category::Buzjets, Category::Large, Category::Heavy, Category::HighPerf,
                             Category::Rotorcraft};
    for (int i = 0; i < 5; ++i)
        for (const auto& t : readList(root, sections[i].first, sections[i].second, "types"))
            database.db.categories[static_cast<std::size_t>(cats[i])].insert(modelId(t));

    database.db.similarGroups.reserve(64);
    for (const auto e : root.child("similar_types").children("similar")) {
        auto group = items(e.attribute("types").as_string());
        std::sort(group.begin(), group.end());
        if (!group.empty()) database.db.similarGroups.push_back(std::move(group));
    }

    database.db.airlines = readList(root, "ICAO_airlines", "ICAO", "codes");
    core::log(fmt::format("{:5} ICAO airline codes", database.db.airlines.size()));
    database.db.cargoOperators = readList(root, "cargo_operators", "ICAO", "codes");
    core::log(fmt::format("{:5} cargo operators", database.db.cargoOperators.size()));
    airlineId("");
    for (const auto& a : database.db.airlines) database.airlineIds.emplace(a, airlineId(a));
    for (const auto& a : database.db.cargoOperators) airlineId(a);

    std::set<std::string> pubs;
    for (const auto e : root.child("publishers").children("pub"))
        pubs.insert(e.attribute("names").as_string());
    database.db.publisherSpellings.reserve(640);
    for (const auto& p : pubs) database.db.publisherSpellings.push_back(items(p));
    core::log(fmt::format("{:5} publishers", database.db.publisherSpellings.size()));

    for (const auto e : root.child("wingspans").children("wingspan")) {
        const std::string type = e.attribute("type").as_string();
        if (type.empty() || !database.db.models.contains(type)) {
            core::log(fmt::format("wingspan model {} is not valid, skipped", type));
            continue;
        }
        database.db.wingSpans.emplace(type, e.attribute("meters").as_double() * 0.5 * 0.0005399568034557236);
    }
    for (const auto& [type, half] : database.db.wingSpans) {
        try {
            const ModelId id = modelId(type);
            if (id < kHalfSpanTableSize) database.halfSpanTable[id] = half;
            database.largestHalfSpanNm = std::max(database.largestHalfSpanNm, half);
        } catch (const std::exception& ex) {
            core::log(fmt::format("wsp fill what: {}", ex.what()));
        }
    }

    for (const auto e : root.child("fixes").children("fx")) {
        const std::string wrong = e.attribute("wro").as_string(), right = e.attribute("cor").as_string();
        if (right.empty() || !database.db.models.contains(right)) {
            core::log(fmt::format("wrong fix {} -> {}, the latter is not valid", wrong, right));
        } else if (!database.db.modelFixes.emplace(wrong, right).second) {
            core::log(fmt::format("wrong part of fix: '{}', already exists, skipped", wrong));
        }
    }
    core::log(fmt::format("{:5} fixes", database.db.modelFixes.size()));

    database.db.simaddons20 = readList(root, "simaddons20", "simaddon20", "arpts");
    database.db.thirdparties20 = readThirdparties(root, "thirdparties20", "thirdpartie20");
    database.db.thirdparties24 = readThirdparties(root, "thirdparties24", "thirdpartie24");

    database.db.records.reserve(60000);
    for (const auto d : root.child("dbase").children("d")) {
        database.db.records.push_back({d.attribute("r").as_string(), airlineId(d.attribute("a").as_string()),
                                       modelId(d.attribute("m").as_string()),
                                       airlineId(d.attribute("o").as_string()),
                                       d.attribute("c").as_bool(false)});
    }
    std::stable_sort(database.db.records.begin(), database.db.records.end(),
                     [](const DbaseRecord& a, const DbaseRecord& b) { return a.regcode < b.regcode; });
    database.db.records.erase(
        std::unique(database.db.records.begin(), database.db.records.end(),
                    [](const DbaseRecord& a, const DbaseRecord& b) { return a.regcode == b.regcode; }),
        database.db.records.end());
    database.db.records.shrink_to_fit();
    core::log(fmt::format("{:5} dbase records read", database.db.records.size()));
}

} // namespace

const ReferenceDatabase& dbase() {
    return database.db;
}

void clearDbase() {
    database = {};
}

bool loadDbase(const fs::path& encrypted) {
    if (!fs::exists(encrypted)) throw std::runtime_error(fmt::format("{} not available", encrypted.string()));
    const fs::path plain = fs::path(encrypted).replace_extension(".xml");
    if (!streamDecrypt(encrypted, plain))
        throw std::runtime_error(fmt::format("{} stream decrypt failed", encrypted.string()));
    return parseDbaseXml(plain);
}

bool parseDbaseXml(const fs::path& plain) {
    pugi::xml_document doc;
    const auto r = doc.load_file(plain.c_str(), 116, pugi::encoding_auto);
    if (!r) {
        core::log(fmt::format("'{}' not read because of {}", plain.string(), r.description()));
        removeFile(plain);
        return false;
    }
    try {
        const auto root = doc.child("root");
        if (!root) throw core::UserErrorException(61, "XML root missing: root");
        clearDbase();
        readAll(root);
    } catch (...) {
        removeFile(plain);
        throw;
    }
    removeFile(plain);
    return true;
}

bool readDbase() {
    static std::optional<bool> done; // once per process
    if (!done) done = loadDbase(core::gPaths.programFolder / "input" / "dbase.enc");
    return *done;
}

Category category(ModelId model) {
    const auto in = [&](Category c) {
        return database.db.categories[static_cast<std::size_t>(c)].contains(model);
    };
    for (const Category c :
         {Category::Large, Category::Heavy, Category::Buzjets, Category::Rotorcraft, Category::HighPerf})
        if (in(c)) return c;
    return Category::Light;
}

bool isModel(std::string_view text) {
    return !text.empty() && database.db.models.contains(std::string(text));
}
AirlineId knownAirline(std::string_view code) noexcept {
    const auto it = database.airlineIds.find(code);
    return it == database.airlineIds.end() ? AirlineId{0} : it->second;
}

bool isAirline(std::string_view text) {
    return !text.empty() && database.db.airlines.contains(std::string(text));
}

double halfSpan(ModelId model) {
    if (model >= kHalfSpanTableSize) {
        core::log(fmt::format("hwsp: {} what: {}", model, "handle beyond the span table"));
        return 35.0;
    }
    return database.halfSpanTable[model];
}

double largestHalfSpan() {
    return database.largestHalfSpanNm;
}

std::vector<std::string> regcodeVariants(std::string_view r) {
    std::vector<std::string> out;
    if (r.size() >= 5 && r[0] != 'N' && r.find('-') == std::string_view::npos) {
        out.push_back(fmt::format("{}-{}", r.substr(0, 2), r.substr(2)));
        out.push_back(fmt::format("{}-{}", r.substr(0, 1), r.substr(1)));
    }
    out.emplace_back(r);
    return out;
}

std::optional<DbaseRecord> dbaseRecordOf(std::string_view regcode) {
    if (regcode.empty()) return std::nullopt;
    for (const auto& v : regcodeVariants(regcode)) {
        const auto it = std::lower_bound(
            database.db.records.begin(), database.db.records.end(), v,
            [](const DbaseRecord& rec, const std::string& key) { return rec.regcode < key; });
        if (it != database.db.records.end() && it->regcode == v) return *it;
    }
    return std::nullopt;
}

std::string airlineOfRegcode(std::string_view regcode) {
    const auto r = dbaseRecordOf(regcode);
    return r ? std::string(airlineCode(r->airline)) : std::string();
}

std::string regcodeInTitle(std::string_view title) {
    for (const auto& r : database.db.records)
        if (!r.regcode.empty() && r.regcode.size() < 6 && title.find(r.regcode) != std::string_view::npos)
            return r.regcode;
    return {};
}

bool isUsableAircraft(std::string_view type, std::string_view cat) {
    if (type.empty() || type == "null") return false;
    if (cat == "B1" || cat == "B2" || cat == "B4" || cat == "C1" || cat == "C2") return false;
    if (type.size() > 4) return false;
    for (const std::string_view t :
         {"BALL", "EMER", "GLID", "GRND", "GND", "PARA", "SERV", "SHIP", "VENT", "TWR"})
        if (type == t) return false;
    return true;
}

} // namespace orv::refdata
