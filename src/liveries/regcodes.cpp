// Registration lists: the shipped AIG list and the user's my_regcodes files tie liveries to
// registrations; records without registrations name titles the scan must not use.
#include <algorithm>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "core/core.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "refdata/refdata.h"

namespace orv::liveries {

namespace {

// Titles the user will not see: read on the worker, asked from the scan's tasks.
std::mutex dontUseMutex; // guards dontUseTitles
std::unordered_set<std::string> dontUseTitles;

std::vector<std::string> splitCommas(std::string_view text) {
    std::vector<std::string> out;
    while (!text.empty()) {
        const auto cut = text.find(',');
        std::string piece = core::trim(text.substr(0, cut));
        if (!piece.empty()) out.push_back(std::move(piece));
        if (cut == std::string_view::npos) break;
        text.remove_prefix(cut + 1);
    }
    return out;
}

fs::path aigEncrypted() {
    return core::gPaths.programFolder / "input" / params::names::kRegcodesEnc;
}
fs::path aigPlain() {
    return core::gPaths.programFolder / "input" / params::names::kRegcodesXml;
}
fs::path userFolder() {
    return core::gPaths.programFolder / "my_regcodes";
}
bool userFolderHasFiles() {
    std::error_code ec;
    return fs::is_directory(userFolder(), ec) && !fs::is_empty(userFolder(), ec);
}

} // namespace

bool readAigRegcodes(const fs::path& xml, std::vector<RegcodeRecord>& records) {
    pugi::xml_document doc;
    if (!doc.load_file(xml.c_str())) {
        core::log(fmt::format("Failed to load {}", xml.string()));
        refdata::removeFile(xml);
        return false;
    }
    const auto root = doc.child("root");
    if (!params::metaValid(root, false)) return false;
    const auto aig = root.child("aig");
    if (!aig) {
        core::log("No <aig> node found in XML.");
        return false;
    }
    records.reserve(records.size() + 7000);
    bool ok = true;
    std::size_t count = 0;
    std::string previous;
    for (const auto l : aig.children("l")) {
        const std::string title = l.attribute("t").value();
        if (title.empty()) continue;
        if (title == previous) {
            core::log(fmt::format("Duplicate title '{}' (same as previous)", title));
            ok = false;
            continue;
        }
        previous = title;
        records.push_back({title, splitCommas(l.attribute("r").value()), l.attribute("s").as_bool(false)});
        ++count;
    }
    core::log(fmt::format("{:5} {} read from {}", count, count == 1 ? "livery" : "liveries",
                          xml.filename().string()));
    return ok;
}

bool parseRegcodeLine(std::string_view line, RegcodeRecord& out, std::string& wrongLength) {
    wrongLength.clear();
    if (line.size() < 6) return false;
    std::vector<std::string_view> fields;
    for (std::size_t start = 0;;) {
        const auto cut = line.find(';', start);
        fields.push_back(line.substr(start, cut == std::string_view::npos ? cut : cut - start));
        if (cut == std::string_view::npos) break;
        start = cut + 1;
    }
    if (fields.size() < 2 || fields.size() > 3) return false;
    out.title = core::trim(fields[0]);
    out.regcodes.clear();
    for (auto& r : splitCommas(fields[1])) {
        if (r.size() < 3 || r.size() > 12) {
            wrongLength = r;
            continue;
        }
        out.regcodes.push_back(std::move(r));
    }
    out.special =
        out.regcodes.size() == 1 || (out.regcodes.size() > 1 && fields.size() == 3 && fields[2] == "#");
    return !out.title.empty();
}

bool readRegcodeFiles(const fs::path& folder, std::vector<RegcodeRecord>& records) {
    bool ok = true;
    try {
        std::vector<fs::path> files;
        for (const auto& e : fs::directory_iterator(folder))
            if (e.is_regular_file() && core::iequals(e.path().extension().string(), ".txt"))
                files.push_back(e.path());
        for (const auto& file : files) {
            std::vector<std::string> lines;
            lines.reserve(1024);
            if (!core::readLines(core::detectEncoding(file), file, lines)) {
                ok = false;
                continue;
            }
            std::size_t count = 0;
            for (const auto& line : lines) {
                RegcodeRecord r;
                std::string wrong;
                const bool parsed = parseRegcodeLine(line, r, wrong);
                if (!wrong.empty()) {
                    core::log(fmt::format("wrong regcode length '{}' in {}", wrong, file.string()));
                    ok = false;
                }
                if (!parsed) continue;
                records.push_back(std::move(r));
                ++count;
            }
            core::log(fmt::format("{:5} {} read from {}", count, count == 1 ? "livery" : "liveries",
                                  file.string()));
        }
    } catch (const std::exception& e) {
        core::log(fmt::format("Error reading regcode files in {}, what: {}", folder.string(), e.what()));
        ok = false;
    }
    return ok;
}

void readDontUseTitles() {
    std::lock_guard lock(dontUseMutex);
    dontUseTitles.clear();
    try {
        if (refdata::streamDecrypt(aigEncrypted(), aigPlain())) {
            std::vector<RegcodeRecord> records;
            if (!readAigRegcodes(aigPlain(), records))
                report(Report::OfflineRegcodes,
                       fmt::format("There were errors in processing the file '{}', see the Log.txt",
                                   aigPlain().filename().string()));
            std::size_t n = 0;
            for (const auto& r : records)
                if (r.regcodes.empty()) n += dontUseTitles.insert(r.title).second;
            core::log(fmt::format("{:5} don't use title{} read", n, n == 1 ? "" : "s"));
            refdata::removeFile(aigPlain());
        }
        if (userFolderHasFiles()) {
            std::vector<RegcodeRecord> records;
            if (!readRegcodeFiles(userFolder(), records))
                report(
                    Report::OfflineRegcodes,
                    fmt::format(
                        "There were errors in processing the regcode files in folder '{}', see the Log.txt",
                        userFolder().string()));
            std::size_t n = 0;
            for (const auto& r : records)
                if (r.regcodes.empty()) n += dontUseTitles.insert(r.title).second;
            core::log(fmt::format("{:5} don't use title{} read from files in {}", n, n == 1 ? "" : "s",
                                  userFolder().string()));
        }
    } catch (const std::exception& e) {
        core::log(fmt::format("exception: {}", e.what()));
    }
}

bool dontUse(const std::string& title) {
    std::lock_guard lock(dontUseMutex);
    return dontUseTitles.contains(title);
}

namespace {

// Applies one source's records to the registration map, then its summary line.
void applyRecords(const std::vector<RegcodeRecord>& records) {
    auto& s = gStore;
    std::size_t added = 0, replaced = 0, special = 0;
    for (const auto& r : records) {
        const std::string_view title = titleInstalled(r.title);
        if (title.empty()) continue;
        for (const auto& reg : r.regcodes) {
            const auto it = s.regcodeTitles.find(reg);
            if (it == s.regcodeTitles.end()) {
                s.regcodeTitles.emplace(reg, title);
                ++added;
            } else if (it->second != title) {
                report(Report::OfflineRegcodes,
                       fmt::format("   regcode {} for '{}', instead of the same for '{}'", reg, title,
                                   it->second));
                it->second = title;
                ++replaced;
            }
        }
        if (r.special) {
            for (const auto& reg : r.regcodes) s.specialRegcodes.insert(reg);
            if (r.regcodes.size() == 1) s.uniqueRegcodes.insert(r.regcodes.front());
            s.specialTitles.push_back(title);
            ++special;
        }
    }
    std::string line = fmt::format("{} new regcode{} added", added, added == 1 ? "" : "s");
    if (replaced) line += fmt::format(", {} regcode{} replaced", replaced, replaced == 1 ? "" : "s");
    if (special) line += fmt::format(", {} regcode{} defined as special", special, special == 1 ? "" : "s");
    report(Report::OfflineRegcodes, line);
}

} // namespace

bool applyAigRegcodes() {
    if (!refdata::streamDecrypt(aigEncrypted(), aigPlain())) return false;
    report(Report::OfflineRegcodes, fmt::format("Processing file {}", aigEncrypted().filename().string()));
    std::vector<RegcodeRecord> records;
    if (!readAigRegcodes(aigPlain(), records))
        report(Report::OfflineRegcodes,
               fmt::format("There were errors processing the AIG-regcode file '{}', see Log.txt",
                           aigPlain().filename().string()));
    refdata::removeFile(aigPlain());
    applyRecords(records);
    return true;
}

void applyRegcodeFiles() {
    if (!userFolderHasFiles()) return;
    report(Report::OfflineRegcodes, fmt::format("Processing files in {}", userFolder().string()));
    std::vector<RegcodeRecord> records;
    if (!readRegcodeFiles(userFolder(), records))
        report(Report::OfflineRegcodes,
               fmt::format("There were errors processing the regcode files in folder '{}', see Log.txt",
                           userFolder().string()));
    applyRecords(records);
}

} // namespace orv::liveries
