// The livery scan: the folders of the AI packages, a walk over their aircraft.cfg files on a
// bounded pool of tasks, and the parsers that turn each [fltsim.x] section into a livery.
#include <algorithm>
#include <chrono>
#include <deque>
#include <future>
#include <map>
#include <regex>
#include <thread>

#include <fmt/format.h>

#include "core/core.h"
#include "liveries/internal.h"
#include "params/params.h"
#include "refdata/refdata.h"
#include "sim/sim.h"

namespace orv::liveries {

ScanProgress gScanProgress;

namespace {

// A title goes into LiveriesScanned.xml and to the simulator: no control characters, valid UTF-8.
bool storableTitle(std::string_view t) {
    return core::validUtf8(t) && std::none_of(t.begin(), t.end(), [](char ch) {
               const auto c = static_cast<unsigned char>(ch);
               return c < 0x20 || c == 0x7F;
           });
}

} // namespace

namespace {

const std::map<std::string, std::string, std::less<>> kAsobo = {
    {"Asobo_FlightDesignCT", "FDCT"},
    {"Asobo_DA40_TDI", "DA40"},
    {"Asobo_Longitude", "C700"},
    {"Asobo_DA40_NG", "DA40"},
    {"Asobo_VL3", "VL3"},
    {"Asobo_Cap10C", "CP10"},
    {"Asobo_Savage_Cub", "SAVG"},
    {"Asobo_CJ4", "C25C"},
    {"Asobo_Savage_ShockUltra", "SAVG"},
    {"Asobo_C152", "C152"},
    {"Asobo_XCub", "CC19"},
    {"Asobo_C152_Aerobat", "C152"},
    {"Asobo_Pitts", "PTS2"},
    {"Asobo_C172sp_AS1000", "C172"},
    {"Asobo_SR22", "SR22"},
    {"Asobo_C172sp_classic", "C172"},
    {"Asobo_Icon", "A5"},
    {"Asobo_Bonanza_G36", "BE36"},
    {"Asobo_TBM930", "TBM9"},
    {"Asobo_Baron_G58", "B58T"},
    {"Asobo_KingAir350", "B350"},
    {"Asobo_B747_8i", "B748"},
    {"Asobo_E330", "E300"},
    {"Asobo_B787_10", "B78X"},
    {"Asobo_DV20", "DV20"},
    {"Asobo_208B_GRAND_CARAVAN_EX", "C208"},
    {"Asobo_DR400", "DR40"},
    {"Asobo_A320_NEO", "A20N"},
    {"Asobo_DA62", "DA62"},
    {"FlyByWire_A320_NEO", "A20N"},
};

// The titles the scan has taken so far: its file tasks add them, so a repeat is refused.
std::mutex titleSetMutex; // guards titleSet
std::unordered_set<std::string> titleSet;

// Accepts a title once per scan: the first task to get there wins.
bool acceptTitle(const std::string& title) {
    std::lock_guard lock(titleSetMutex);
    return titleSet.insert(title).second;
}

bool startsComment(std::string_view line) {
    const auto t = line.find_first_not_of(" \t");
    return t == std::string_view::npos || line.substr(t).starts_with("//") || line.substr(t).starts_with(";");
}

// A [fltsim.N] header (lower case, the whole line): its number; 10000 for a line that holds
// "[fltsim." or "[FLTSIM." otherwise; nullopt for no header. `bad`: digits that don't fit.
// Written by hand: this runs on every line of tens of thousands of files.
std::optional<long> headerNumber(std::string_view line, bool& bad) {
    bad = false;
    if (line.starts_with("//")) return std::nullopt;
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; };
    std::size_t i = 0;
    while (i < line.size() && blank(line[i])) ++i;
    constexpr std::string_view open = "[fltsim.";
    if (line.substr(i).starts_with(open)) {
        std::size_t j = i + open.size(), digits = 0;
        long n = 0;
        while (j < line.size() && line[j] >= '0' && line[j] <= '9') {
            if (n > 100000000)
                bad = true; // far beyond any valid number: the value doesn't matter
            else
                n = n * 10 + (line[j] - '0');
            ++j, ++digits;
        }
        if (digits > 0 && j < line.size() && line[j] == ']') {
            ++j;
            while (j < line.size() && blank(line[j])) ++j;
            if (j == line.size()) return n;
        }
        bad = false;
    }
    if (line.find("[fltsim.") != std::string_view::npos || line.find("[FLTSIM.") != std::string_view::npos)
        return 10000;
    return std::nullopt;
}

// The value of `key = value` on a whole line; quotes keep the text between the first two.
std::optional<std::string> keyValue(const std::string& line, std::string_view key) {
    const auto eq = line.find('=');
    if (eq == std::string::npos) return std::nullopt;
    if (core::trim(std::string_view(line).substr(0, eq)) != key) return std::nullopt;
    std::string value = core::trim(std::string_view(line).substr(eq + 1));
    if (value.empty()) return std::nullopt; // the key's pattern wants a value
    if (const auto q = value.find('"'); q != std::string::npos) {
        const auto q2 = value.find('"', q + 1);
        return q2 == std::string::npos ? std::string() : value.substr(q + 1, q2 - q - 1);
    }
    return value;
}

// Real files put comments behind values; the value ends where the comment starts.
std::string withoutComment(std::string v) {
    if (const auto c = v.find(';'); c != std::string::npos) v.resize(c);
    if (const auto c = v.find("//"); c != std::string::npos) v.resize(c);
    return core::trim(v);
}

// A type code: valid as it is, or through the database's fixes; empty when neither.
std::string validModel(std::string code, const std::string& path) {
    if (code.empty()) return code;
    if (refdata::isModel(code)) return code;
    const auto& fixes = refdata::dbase().modelFixes;
    if (const auto it = fixes.find(code); it != fixes.end()) {
        report(Report::Fixes,
               fmt::format("Model fix: {} found in {} changed into {}", code, path, it->second));
        return it->second;
    }
    report(Report::InvalidAircraftCodes, fmt::format("{:16} in {}", code, path));
    return {};
}

// What the first "icao_type_designator" and the first "base_container" of a file say, gathered
// line by line.
struct ModelKeys {
    std::optional<std::string> designator, container;
    void see(const std::string& l) {
        if (!designator)
            if (auto v = keyValue(l, "icao_type_designator"); v && !withoutComment(*v).empty())
                designator = withoutComment(*v);
        if (!container)
            if (auto v = keyValue(l, "base_container"); v && !withoutComment(*v).empty())
                container = withoutComment(*v);
    }
};

std::string modelOfFile(const ModelKeys& keys, const std::string& path) {
    std::string code;
    if (keys.designator) {
        code = core::toUpper(keys.designator->substr(0, 4));
    } else if (keys.container) {
        const std::string& b = *keys.container;
        if (b.size() >= 4) {
            // "..\Asobo_A320_NEO" and the like: the container's name after its three-character
            // prefix.
            std::string name = b.substr(3);
            if (const auto slash = name.find_last_of("\\/"); slash != std::string::npos)
                name = name.substr(slash + 1);
            if (const auto it = kAsobo.find(name); it != kAsobo.end()) code = it->second;
        }
        code = core::toUpper(code);
    }
    if (code.empty()) {
        if (path.find("pmdg-aircraft-7") == std::string::npos &&
            path.find("fnx-aircraft-3") == std::string::npos)
            report(Report::InvalidAircraftCfgFiles,
                   "Line icao_type_designator= is missing in [General] section of " + path);
        return {};
    }
    return validModel(code, path);
}

// One section of a normal file: the livery, if the section makes one.
std::optional<LiveryData> processFltSimSection(std::uint16_t rank, const std::string& path,
                                               refdata::ModelId model, std::vector<std::string> section) {
    while (!section.empty() && startsComment(section.back())) section.pop_back();
    if (section.empty()) return std::nullopt;
    const std::string& first = section.front();
    std::string title, parking, regcode;
    std::optional<std::string> airline;
    bool haveTitle = false, haveAtcId = false, haveParking = false, dropped = false;
    const auto incomplete = [&](std::string text) { report(Report::IncompleteSections, std::move(text)); };
    for (std::size_t i = 1; i < section.size() && !dropped; ++i) {
        const auto& line = section[i];
        if (startsComment(line)) continue;
        if (auto v = keyValue(line, "title")) {
            if (haveTitle) {
                incomplete(fmt::format("{} {} has more than one title key", path, first));
                break;
            }
            haveTitle = true;
            title = core::trim(*v); // as written: the simulator knows it with a ";" or "//" in it
            if (title.find("FenixA320") != std::string::npos || title.find("PMDG 737") != std::string::npos)
                dropped = true;
        } else if (line.find("icao_airline") != std::string::npos) {
            if (airline) {
                incomplete(fmt::format("{} {} has more than one atc_parking_codes key", path, first));
                break;
            }
            auto v = keyValue(line, "icao_airline");
            std::string code = v ? withoutComment(*v) : std::string();
            code = (code.empty() || code == "ZZZZ") ? std::string("ZZZ") : core::toUpper(code);
            code = core::trimList(code);
            if (code.size() == 4 && (code.back() == 'X' || code.back() == 'C')) code.pop_back();
            if (!refdata::isAirline(code)) {
                if (code == "RFO")
                    dropped = true;
                else
                    report(Report::InvalidAirlineCodes, fmt::format("{:12} in {} {}", code, path, first));
                code.clear();
            }
            airline = code;
        } else if (line.find("atc_parking_types") != std::string::npos) {
            if (haveParking) {
                incomplete(fmt::format("{} {} has more than one atc_parking_types key", path, first));
                break;
            }
            haveParking = true;
            if (auto v = keyValue(line, "atc_parking_types"))
                parking = core::toUpper(core::trim(withoutComment(*v)));
        } else if (auto v = keyValue(line, "atc_id"); v || line.find("atc_id=") != std::string::npos) {
            if (haveAtcId) {
                incomplete(fmt::format("{}, {}, has more than one atc_id key", path, first));
                dropped = true;
                break;
            }
            haveAtcId = true;
            std::string value = v ? *v : std::string();
            if (const auto c = value.find(';'); c != std::string::npos) value.resize(c);
            value = core::trim(value);
            std::vector<std::string> pieces;
            bool ok = !value.empty();
            for (std::size_t start = 0; ok;) {
                const auto cut = value.find(',', start);
                const std::string piece = value.substr(start, cut == std::string::npos ? cut : cut - start);
                if (piece.empty() || piece.size() > 12 || piece.find('*') != std::string::npos ||
                    piece == " ")
                    ok = false;
                else
                    pieces.push_back(core::trim(piece));
                if (cut == std::string::npos) break;
                start = cut + 1;
            }
            if (ok)
                regcode = pieces.size() == 1 ? pieces.front() : std::string();
            else if (!value.empty())
                incomplete(fmt::format("invalid atc_id={} in: {}", value, path));
        }
    }
    if (dropped) return std::nullopt;
    if (!airline || airline->empty())
        incomplete(fmt::format("{} {} icao_airline is missing, or it has invalid info ", path, first));
    if (title.empty()) {
        incomplete(fmt::format("{} {} misses title", path, first));
        return std::nullopt;
    }
    if (!storableTitle(title)) {
        incomplete(fmt::format("{} {} has a title with control characters or broken text", path, first));
        return std::nullopt;
    }
    std::string code = airline.value_or("");
    if (title.ends_with("-STUB")) code = "ZZZ";
    if (dontUse(title)) return std::nullopt;
    if (code == "ZZZ") regcode.clear();
    const bool heavy = refdata::category(model) == refdata::Category::Heavy;
    if (code.empty() && regcode.empty()) {
        if (heavy) {
            core::log(fmt::format("'{}' '{}' has no airline and no regcode info", path, title));
            return std::nullopt;
        }
        code = "PVT";
        const std::string inTitle = refdata::regcodeInTitle(title);
        if (inTitle.size() < 6) regcode = inTitle;
    } else if (code.empty()) {
        if (const auto rec = refdata::dbaseRecordOf(regcode)) {
            code = std::string(refdata::airlineCode(rec->airline));
        } else if (heavy) {
            core::log(fmt::format("'{}' '{}' has no airline and regcode not in dbase", path, title));
            return std::nullopt;
        } else {
            code = "PVT";
        }
    }
    const bool cargo =
        parking.find("CARGO") != std::string::npos && parking.find("GATE") == std::string::npos;
    if (!acceptTitle(title)) {
        incomplete(fmt::format("{} {} title '{}' already exists", path, first, title));
        return std::nullopt;
    }
    return LiveryData{title, regcode, refdata::airlineId(code), model, rank, cargo};
}

// A line that ends a section: a header, or a '[' within its first 6 bytes.
bool endsSection(std::string_view line) {
    const auto b = line.find('[');
    return b != std::string::npos && b < 6;
}

const char* kIvaoSpecials[] = {"IVAO_B738WLfa", "IVAO_B739WLfa", "IVAO_A320wCFM", "IVAO_A320wIAE",
                               "IVAO_A319fIAEw"};

} // namespace

void clearTitleSet() {
    std::lock_guard lock(titleSetMutex);
    titleSet.clear();
}

std::vector<LiveryData> parseAircraftCfg(std::uint16_t rank, const std::string& path,
                                         const LineSource& lines) {
    std::vector<LiveryData> out;
    // First the whole file: its section numbers and the model it is of.
    bool anyHeader = false, givenUp = false;
    ModelKeys keys;
    std::string line;
    if (!lines([&](std::string_view text) {
            line.assign(text);
            bool bad = false;
            if (const auto n = headerNumber(line, bad)) {
                if (bad) {
                    core::log(fmt::format("fltsim num {} incorrect", line));
                    givenUp = true;
                    return false;
                }
                if (*n > 10000) {
                    report(Report::InvalidAircraftCfgFiles,
                           fmt::format("{} contains a [fltsim.x] section with a number < 0 or > {}", path,
                                       10000));
                    givenUp = true;
                    return false;
                }
                anyHeader = true;
            }
            keys.see(line);
            return true;
        }))
        return out;
    if (givenUp) return out;
    if (!anyHeader) {
        report(Report::NoFltsimSection, path);
        return out;
    }
    const std::string modelCode = modelOfFile(keys, path);
    if (modelCode.empty()) return out;
    const refdata::ModelId model = refdata::modelId(modelCode);
    // Then the sections, one at a time.
    std::vector<std::string> section;
    bool inSection = false, tooLong = false;
    const auto finish = [&] {
        if (inSection && tooLong)
            report(Report::IncompleteSections, fmt::format("{} {} has more than {} lines: skipped", path,
                                                           section.front(), kMaxSectionLines));
        else if (inSection)
            if (auto l = processFltSimSection(rank, path, model, std::move(section)))
                out.push_back(std::move(*l));
        section.clear();
        inSection = tooLong = false;
    };
    section.reserve(48);
    (void)lines([&](std::string_view text) {
        line.assign(text);
        bool bad = false;
        if (headerNumber(line, bad)) {
            finish();
            inSection = true;
            section.push_back(line);
        } else if (inSection && endsSection(line)) {
            finish();
        } else if (inSection && section.size() < kMaxSectionLines) {
            section.push_back(line);
        } else if (inSection) {
            tooLong = true;
        }
        return true;
    });
    finish();
    return out;
}

std::vector<LiveryData> parseAircraftCfg(std::uint16_t rank, const std::string& path,
                                         const std::vector<std::string>& lines) {
    return parseAircraftCfg(rank, path, [&](const std::function<bool(std::string_view)>& fn) {
        for (const auto& l : lines)
            if (!fn(l)) break;
        return true;
    });
}

namespace {

// An aircraft.cfg of this size is no livery file (a large real one has a few hundred kilobytes);
// it is skipped with a log line rather than read.
constexpr std::uintmax_t kMaxCfgBytes = 16u << 20;

// The lines of a file, read afresh on each pass; false (and said in the log) when it can't be.
std::optional<LineSource> fileLines(const fs::path& path) {
    std::error_code ec;
    const auto size = fs::file_size(path, ec); // one that can't be opened is said below
    if (!ec && size > kMaxCfgBytes) {
        core::log(fmt::format("! {} has {} MB, more than an aircraft.cfg can have ({} MB): skipped",
                              path.string(), size >> 20, kMaxCfgBytes >> 20));
        return std::nullopt;
    }
    const auto encoding = core::detectEncoding(path);
    if (encoding == core::Encoding::NoneFound) {
        core::log(fmt::format("! No text encoding detected for {}", path.string()));
        return std::nullopt;
    }
    return LineSource([path, encoding](const std::function<bool(std::string_view)>& fn) {
        if (core::streamLines(encoding, path, fn)) return true;
        core::log(fmt::format("! Failed reading {}", path.string()));
        return false;
    });
}

} // namespace

std::vector<LiveryData> searchLiveriesInFile(std::uint16_t rank, const fs::path& path) {
    std::vector<LiveryData> out;
    try {
        if (const auto lines = fileLines(path)) out = parseAircraftCfg(rank, path.string(), *lines);
    } catch (const std::exception& e) {
        core::log(fmt::format("! Exception in searchLiveriesInFile {}: {}", path.string(), e.what()));
    }
    return out;
}

namespace {

// The keys of one IVAO section that the scan takes; `bad` when one of them repeats.
struct IvaoKeys {
    std::string title, texture, regcode;
    bool bad = false;
};

template <typename Incomplete>
IvaoKeys readIvaoKeys(const std::vector<std::string>& section, const std::string& path,
                      Incomplete&& incomplete) {
    const std::string& first = section.front();
    IvaoKeys k;
    bool haveTitle = false, haveParking = false, haveAtcId = false;
    for (std::size_t i = 1; i < section.size() && !k.bad; ++i) {
        const auto& line = section[i];
        if (auto v = keyValue(line, "title")) {
            if (haveTitle) {
                incomplete(first, " has more than one title key");
                k.bad = true;
                break;
            }
            haveTitle = true;
            k.title = core::trim(*v);
            if (k.title != *v)
                core::log(fmt::format("removed spaces around title '{}' --> '{}'", *v, k.title));
        } else if (line.find("atc_parking_types") != std::string::npos) { // even without a value
            if (haveParking) {
                incomplete(first, " has more than one atc_parking_types key");
                k.bad = true;
            }
            haveParking = true;
        } else if (auto a = keyValue(line, "atc_id")) {
            if (haveAtcId) {
                incomplete(first, fmt::format(", {}, has more than one atc_id key", path));
                k.bad = true;
                break;
            }
            haveAtcId = true;
            std::string v = *a;
            if (const auto c = v.find(';'); c != std::string::npos) v.resize(c);
            v = core::trim(v);
            if (v.empty() || v.size() > 12 || v.find('*') != std::string::npos ||
                v.find(',') != std::string::npos)
                report(Report::IncompleteSections, fmt::format("invalid atc_id={} in {}", v, path));
            else
                k.regcode = v;
        } else if (auto t = keyValue(line, "texture")) {
            k.texture = withoutComment(*t);
        }
    }
    return k;
}

} // namespace

std::vector<LiveryData> searchLiveriesInIvaoFile(std::uint16_t rank, const fs::path& file) {
    std::vector<LiveryData> out;
    const std::string path = file.string();
    try {
        // On Windows the folders are separated by backslashes; here by slashes: both are accepted.
        static const std::regex patterns[] = {
            std::regex(R"(.+[\\/]IVAO_MTL[\\/]SimObjects[\\/]Airplanes[\\/]IVAO_(\w+)[\\/]aircraft\.cfg$)",
                       std::regex::icase),
            std::regex(R"(.+[\\/]ivao_x-csl[\\/]SimObjects[\\/]Airplanes[\\/]IVAO_(\w+)[\\/]aircraft\.cfg$)",
                       std::regex::icase)};
        std::smatch m;
        std::string folderModel;
        for (const auto& p : patterns)
            if (std::regex_match(path, m, p)) {
                folderModel = m[1].str();
                break;
            }
        if (folderModel.empty()) return out;
        const std::string modelCode = validModel(core::toUpper(folderModel.substr(0, 4)), path);
        if (modelCode.empty()) return out;
        const refdata::ModelId model = refdata::modelId(modelCode);
        const auto lines = fileLines(file);
        if (!lines) return out;
        const bool special = std::any_of(std::begin(kIvaoSpecials), std::end(kIvaoSpecials),
                                         [&](const char* s) { return path.find(s) != std::string::npos; });
        const std::regex airlineOf(modelCode + (special ? "W" : "") + R"(\s*(\w\w\w).*$)");
        const auto incomplete = [&](const std::string& first, std::string text) {
            report(Report::IncompleteSections, path + " " + first + text);
        };
        std::vector<std::string> section;
        const auto finish = [&] {
            if (section.empty()) return;
            const std::string first = section.front();
            auto [title, texture, regcode, bad] = readIvaoKeys(section, path, incomplete);
            section.clear();
            if (bad) return;
            std::error_code ec;
            if (!fs::exists(file.parent_path() / ("texture." + texture), ec)) {
                incomplete(first, " does not exist");
                return;
            }
            if (title.empty()) {
                incomplete(first, " misses title");
                return;
            }
            if (!storableTitle(title)) {
                incomplete(first, " has a title with control characters or broken text");
                return;
            }
            if (dontUse(title)) return;
            std::smatch am;
            std::string airline;
            if (std::regex_search(title, am, airlineOf)) {
                airline = core::toUpper(am[1].str());
                if (!refdata::isAirline(airline)) {
                    report(Report::InvalidAirlineCodes, fmt::format("{:12} in {} {}", airline, path, first));
                    return;
                }
            } else if (const auto rec = regcode.empty() ? std::nullopt : refdata::dbaseRecordOf(regcode)) {
                airline = std::string(refdata::airlineCode(rec->airline));
            } else {
                incomplete(first,
                           " misses airlinecode in title: " + title +
                               (regcode.empty() ? ", and no regcode" : ", and regcode unknown " + regcode));
                return;
            }
            if (airline == "ZZZ") regcode.clear();
            if (!acceptTitle(title)) {
                incomplete(first, " title already exists: " + title);
                return;
            }
            out.push_back({title, regcode, refdata::airlineId(airline), model, rank, false});
        };
        bool tooLong = false;
        (void)(*lines)([&](std::string_view l) {
            bool badNumber = false;
            if (headerNumber(l, badNumber)) {
                finish();
                tooLong = false;
                section.emplace_back(l);
            } else if (!section.empty() && endsSection(l)) {
                finish();
            } else if (!section.empty() && section.size() < kMaxSectionLines) {
                section.emplace_back(l);
            } else if (!section.empty() && !tooLong) {
                tooLong = true;
                incomplete(section.front(),
                           fmt::format(" has more than {} lines: the rest is not read", kMaxSectionLines));
            }
            return true;
        });
        finish();
    } catch (const std::exception& e) {
        core::log(fmt::format("! Exception in searchLiveriesInIvaoFile {}: {}", path, e.what()));
    } catch (...) {
        core::log(fmt::format("! Unknown exception in searchLiveriesInIvaoFile {}", path));
    }
    return out;
}

// ---- Folders ---------------------------------------------------------------------------------

std::vector<fs::path> collectManualFolders() {
    std::vector<fs::path> list;
    for (int i = 0; i < 10; ++i) {
        const auto name = fmt::format("lfolder{}", i);
        const auto* p = dynamic_cast<const params::StringParameter*>(params::findParameter(name));
        if (!p || p->value.empty()) continue;
        std::error_code ec;
        if (!fs::exists(p->value, ec)) {
            core::log(fmt::format("{}: '{}' does not exist", name, p->value));
            throw core::UserErrorException(
                243, fmt::format("the path pointed to by parameter '{}' does not exist, see Log.txt!", name));
        }
        list.emplace_back(p->value);
    }
    return list;
}

std::vector<fs::path> collectAutomaticFolders(const fs::path& community) {
    struct Finder {
        const char* word;
        std::vector<const char*> names;
        const char* log;
    };
    const bool msfs2020 = sim::msfs2020Selected();
    std::vector<const char*> aig = {"aig-aitraffic-oci"};
    if (msfs2020) aig.push_back("aig-aitraffic-oci-beta");
    const Finder finders[] = {
        {"AIG", aig, "Automatic AIG scan found folder: '{}'"},
        {"FSLTL", {"fsltl-traffic-base"}, "Automatic FSLTL scan found folder: '{}'"},
        {"JF",
         {"justflight-aircraft-traffic-fleet", "justflight-fstraffic-module"},
         "Automatic JF scan found folder: '{}'"},
        {"MTL", {"IVAO_MTL"}, "Automatic IVAO_MTL scan found folder: '{}'"},
    };
    const auto* selector =
        dynamic_cast<const params::StringParameter*>(params::findParameter("AI_PACKAGE_SELECTOR"));
    std::vector<std::string> words;
    if (selector)
        for (auto& w : core::splitList(selector->value)) words.push_back(core::trim(w));
    const bool valid = !words.empty() && std::all_of(words.begin(), words.end(), [&](const std::string& w) {
        return std::any_of(std::begin(finders), std::end(finders),
                           [&](const Finder& f) { return w == f.word; });
    });
    if (!valid) throw std::runtime_error(fmt::format("{} not set", "AI_PACKAGE_SELECTOR"));
    std::vector<fs::path> entries;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(community, ec)) entries.push_back(e.path());
    std::vector<fs::path> list;
    const auto find = [&](const std::vector<const char*>& names, const char* log) {
        for (const auto& e : entries) {
            const std::string name = e.filename().string();
            if (name.find("_CVT_") != std::string::npos) continue;
            if (std::any_of(names.begin(), names.end(),
                            [&](const char* n) { return name.find(n) != std::string::npos; })) {
                list.push_back(e);
                core::log(fmt::format(fmt::runtime(log), e.string()));
                return;
            }
        }
    };
    for (const auto& w : words)
        for (const auto& f : finders)
            if (w == f.word) find(f.names, f.log);
    find({"user-aitraffic"}, "Automatic user-aitraffic scan found folder: '{}'");
    return list;
}

// ---- The walk --------------------------------------------------------------------------------

namespace {

constexpr const char* kSkipped[] = {"airport",   "lvfr",     "mkstudios", "simwings", "fsdreamteam",
                                    "navigraph", "flytampa", "inibuilds", "_CVT_"};

// A pool of the hardware's size: never more tasks in flight than threads.
std::size_t searchLiveries(std::uint16_t rank, const fs::path& folder, std::vector<LiveryData>& into) {
    const std::size_t maxTasks = std::max<std::size_t>(2, std::thread::hardware_concurrency());
    struct Task {
        fs::path file;
        std::future<std::vector<LiveryData>> result;
    };
    std::deque<Task> tasks;
    const std::size_t before = into.size();
    // A slow file is waited for (and said in the log), never given up with the rest of its package.
    const auto drainOldest = [&] {
        auto& f = tasks.front().result;
        if (f.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            core::log(fmt::format("still reading {} after 10 seconds", tasks.front().file.string()));
            f.wait();
        }
        auto records = f.get();
        tasks.pop_front();
        into.insert(into.end(), std::make_move_iterator(records.begin()),
                    std::make_move_iterator(records.end()));
    };
    try {
        std::error_code ec;
        auto it = fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied, ec);
        for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            const std::string path = it->path().string();
            if (path.size() > 249 ||
                std::any_of(std::begin(kSkipped), std::end(kSkipped),
                            [&](const char* s) { return path.find(s) != std::string::npos; })) {
                it.disable_recursion_pending();
                continue;
            }
            if (!it->is_regular_file(ec)) continue;
            const auto& p = it->path();
            if (!core::iequals(p.stem().string(), "aircraft") ||
                !core::iequals(p.extension().string(), ".cfg"))
                continue;
            const bool ivao =
                path.find("ivao_x-csl") != std::string::npos || path.find("IVAO_MTL") != std::string::npos;
            ++gScanProgress.filesFound;
            while (tasks.size() >= maxTasks) drainOldest();
            tasks.push_back({p, std::async(std::launch::async, [rank, p, ivao] {
                                 auto r =
                                     ivao ? searchLiveriesInIvaoFile(rank, p) : searchLiveriesInFile(rank, p);
                                 ++gScanProgress.filesDone;
                                 return r;
                             })});
        }
        while (!tasks.empty()) drainOldest();
    } catch (const std::exception& e) {
        core::log(fmt::format("liveries search in {} aborted, cause: {}", folder.string(), e.what()));
        for (auto& t : tasks) t.result.wait(); // running tasks are waited for, not cancelled
    }
    return into.size() - before;
}

void removeOldReports() {
    for (std::size_t i = 0; i < static_cast<std::size_t>(Report::Count); ++i) {
        std::error_code ec;
        fs::remove(reportPath(static_cast<Report>(i)), ec);
    }
}

} // namespace

bool scanFolders(const std::vector<fs::path>& folders) {
    auto& list = gStore.list;
    list.clear();
    clearReports();
    clearTitleSet();
    removeOldReports();
    readDontUseTitles();
    std::uint16_t rank = 0;
    std::size_t scanned = 0;
    for (const auto& folder : folders) {
        if (folder.empty()) continue;
        if (core::gRun.stopRequested) return false;
        std::error_code ec;
        if (!fs::exists(folder, ec)) {
            core::log(folder.string() + " does not exist, skipped!");
            continue;
        }
        if (!fs::is_directory(folder, ec)) {
            core::log(folder.string() + " is not a folder name, skipped!");
            continue;
        }
        rank = std::min<std::uint16_t>(10, static_cast<std::uint16_t>(rank + 1));
        ++scanned;
        const auto n = searchLiveries(rank, folder, list);
        const auto where = fmt::format("found in {}", folder.string());
        if (n)
            core::log(fmt::format("{} liverie{} {}", n, n == 1 ? "" : "s", where));
        else
            core::log(fmt::format("No liveries {}", where));
    }
    if (list.empty()) return false;
    afterScan(scanned);
    return true;
}

void scanLiveries() {
    auto* prioritize = dynamic_cast<const params::BoolParameter*>(params::findParameter("LIG_PRIORITIZE"));
    auto* automatic = dynamic_cast<const params::BoolParameter*>(params::findParameter("LIG_AUTOMATIC"));
    const bool isAutomatic = !automatic || automatic->value;
    const auto text =
        fmt::format("Scanning {}for liveries ...", prioritize && prioritize->value ? "prioritized " : "");
    core::message(text, true);
    core::log(
        fmt::format("\n++++++++++++++++++++++++ liveries scan {} starts ++++++++++++++++++++++++++++++++",
                    isAutomatic ? "automatic" : "manual"));
    std::vector<fs::path> folders;
    if (isAutomatic) {
        const auto community = sim::communityPath();
        std::error_code ec;
        if (fs::is_directory(community, ec)) folders = collectAutomaticFolders(community);
    } else {
        folders = collectManualFolders();
    }
    if (folders.empty()) {
        if (isAutomatic)
            throw core::UserErrorException(
                43, "Automatic scan has not found any AI packages, choose a different selection (or "
                    "go to Manual mode, see Manual 5.2)");
        throw core::UserErrorException(
            48,
            fmt::format(
                "Exit {} first!   Then set one or more lfolder parameters to your liveries, see Manual 5.2",
                core::kAppName));
    }
    if (!scanFolders(folders)) {
        if (core::gRun.stopRequested) return;
        if (!isAutomatic) throw core::UserErrorException(53, "no liveries found");
        throw core::UserErrorException(
            143, "Automatic scan has not found any liveries, choose a different selection, or switch "
                 "off automatic and set lfolder parameter(-s)");
    }
    params::set(params::parameter<params::BoolParameter>("SCAN_LIVERIES"), false);
    core::log("\n++++++++++++++++++++++++ liveries scan ends ++++++++++++++++++++++++++++++++\n");
}

} // namespace orv::liveries
