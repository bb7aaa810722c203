// The airport scan: walks the simulator's add-on folders, reads the BGL files that hold airports
// in workers of their own, links each airport to the data site's archived file where there is one
// and generates an airport file otherwise, and packs the new ones for the maintainers.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <future>
#include <sstream>
#include <typeinfo>

#include <fmt/format.h>
#include <pugixml.hpp>
#include <zip.h>

#include "core/core.h"
#include "params/params.h"
#include "refdata/refdata.h"
#include "scan/scan.h"
#include "sim/sim.h"

namespace orv::scan {

ScanProgress gScanProgress;

namespace {

namespace af = airportfile;
using namespace std::chrono_literals;

constexpr std::size_t kMaxPathChars = 250;
constexpr auto kFutureWait = 10s;

struct ScanRun {
    ScanLog& log;
    bool msfs2024 = false;
};

ScanLog& scanLog() {
    static ScanLog log;
    return log;
}

fs::path airportsFolder() {
    return core::gPaths.programFolder / "airports";
}
fs::path thirdpartyFolder() {
    return airportsFolder() / "my_thirdparty";
}
fs::path simaddonFolder() {
    return airportsFolder() / "my_simaddon";
}
fs::path tbloFolder() {
    return core::gPaths.programFolder / "tblo";
}
fs::path scanLogFile() {
    return core::gPaths.programFolder / "output" / "AirportsScanLog.txt";
}
fs::path signatureFile() {
    return core::gPaths.programFolder / "output" / "AddonsScanned.txt";
}

bool msfs2024() {
    return !sim::msfs2020Selected();
}

void removeFilesFromDirectory(const fs::path& dir, std::string_view onlyExtension = {}) {
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir, ec)) {
        if (!e.is_regular_file(ec)) continue;
        if (!onlyExtension.empty() && core::toLower(e.path().extension().string()) != onlyExtension) continue;
        fs::remove(e.path(), ec);
        if (ec) core::log(fmt::format("remove({}) failed: {}", e.path().string(), ec.message()));
    }
}

// An archived file of the data site for this airport: its path there, and the stands it has.
struct Archived {
    std::string xml;
    std::int32_t stands = 0;
};

std::optional<Archived> archivedFile(const af::Apf& apf, const ScanRun& run) {
    const std::string code(apf.code.view());
    const auto* record = refdata::airportRecord(apf.code);
    const std::int32_t stands = record ? record->stands : 0;
    const auto& db = refdata::dbase();
    if (apf.publisher == "simaddon") {
        if (run.msfs2024 || !db.simaddons20.contains(code)) {
            run.log.add(fmt::format("{} does not exist as simaddon", code));
            return std::nullopt;
        }
        return Archived{fmt::format("archive/simaddon/{}.xml", code), stands};
    }
    for (const auto& t : run.msfs2024 ? db.thirdparties24 : db.thirdparties20)
        if (t.publisher == apf.publisher &&
            std::find(t.airports.begin(), t.airports.end(), code) != t.airports.end()) {
            std::string publisher;
            for (const char c : apf.publisher) publisher += c == ' ' ? std::string("%20") : std::string(1, c);
            return Archived{fmt::format("archive/thirdparty/{}/{}.xml", publisher, code), stands};
        }
    run.log.add(fmt::format("thirdparty {} {} does not exist", apf.publisher, code));
    return std::nullopt;
}

// Names the publisher and writes a link to the archived file where the data site has one; the
// archived file's stand count when it did.
std::optional<std::int32_t> linkOrClassify(af::Apf& apf, const fs::path& path, const ScanRun& run) {
    apf.bglPath = path.string();
    const auto info = findPublisher(path, run.log);
    apf.publisher = info.publisher, apf.manufacturer = info.manufacturer, apf.creator = info.creator;
    if (apf.publisher.empty()) return std::nullopt;
    const auto archived = archivedFile(apf, run);
    if (!archived) return std::nullopt;
    const bool simaddon = apf.publisher == "simaddon";
    const std::string code(apf.code.view());
    const fs::path link = (simaddon ? simaddonFolder() : thirdpartyFolder()) / (code + ".txt");
    std::error_code ec;
    fs::create_directories(link.parent_path(), ec);
    if (!core::writeText(archived->xml, link, false)) {
        run.log.add(fmt::format("===> writing {} did not succeed", link.string()));
        return std::nullopt;
    }
    run.log.add(simaddon ? fmt::format("{} airport {} linked to {}", "simaddon", code, archived->xml)
                         : fmt::format("thirdparty airport {} linked to {}", code, archived->xml));
    ++gScanProgress.linked;
    return archived->stands;
}

void generateApf(af::Apf& apf, int helipads, const ScanRun& run) {
    if (apf.stands.empty()) return;
    // The user's own folders stay out of the file, which may be sent to the maintainers: it is
    // written just when no publisher was found.
    if (const auto at = apf.bglPath.find("Community"); at != std::string::npos)
        apf.bglPath = apf.bglPath.substr(at);
    const std::string code(apf.code.view());
    const fs::path folder = apf.publisher == "simaddon" ? simaddonFolder() : thirdpartyFolder();
    std::string report = fmt::format("Generated {}: {} position{}", code + ".xml", apf.stands.size(),
                                     apf.stands.size() == 1 ? "" : "s");
    if (helipads > 0) report += fmt::format(", of which {} helipad{}", helipads, helipads == 1 ? "" : "s");
    std::sort(apf.stands.begin(), apf.stands.end(),
              [](const af::Stand& a, const af::Stand& b) { return a.id < b.id; });
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (!af::writeApf(apf, folder / (code + ".xml"), af::WriteMode::Generated,
                      run.msfs2024 ? af::SimVersion::Msfs2024 : af::SimVersion::Msfs2020)) {
        run.log.add(fmt::format("===> Generating {} did not succeed", code));
        return;
    }
    run.log.add(report);
    ++gScanProgress.generated;
}

// An airport record whose code can't be read: a code from the file's stem, its manifest's title
// or its path can still link it to an archived file.
void notRecognised(const fs::path& path, const ScanRun& run) {
    run.log.add(fmt::format("\n==> Not recognised airport {}", path.string()));
    std::optional<refdata::AirportCode> code;
    if (const auto stem = path.stem().string(); stem.size() == 4)
        if (auto c = refdata::AirportCode::tryMake(stem); c && refdata::airportKnown(*c)) {
            code = c;
            run.log.add(fmt::format("Non complying airport has ICAO code '{}' as BGL stem", c->view()));
        }
    if (!code) {
        const auto m = searchManifest(path, run.log);
        if (const auto* a = m.valid ? refdata::airportInText(m.title) : nullptr) {
            code = a->code;
            run.log.add(fmt::format("Non complying airport has ICAO '{}' in title '{}' of manifest",
                                    a->code.view(), m.title));
        }
    }
    if (!code)
        if (const auto* a = refdata::airportInText(path.string())) {
            code = a->code;
            run.log.add(fmt::format("Non complying airport has ICAO '{}' in BGL path '{}'", a->code.view(),
                                    path.string()));
        }
    if (!code) {
        run.log.add(fmt::format("==================> Non complying airport lost ... '{}'", path.string()));
        return;
    }
    af::Apf apf;
    apf.code = *code;
    (void)linkOrClassify(apf, path, run);
}

void readAirport(BglAirport& a, const fs::path& path, const ScanRun& run) {
    const auto code = refdata::AirportCode::tryMake(a.code);
    if (!code || !refdata::airportKnown(*code)) {
        run.log.add(fmt::format("{} is not an airport supported by RealTraffic ", a.code));
        notRecognised(path, run);
        return;
    }
    ++gScanProgress.airportsFound;
    af::Apf apf;
    apf.code = *code;
    const auto archivedStands = linkOrClassify(apf, path, run);
    if (run.msfs2024 && archivedStands) return;
    apf.altitudeFt = a.altitudeFt;
    apf.stands = std::move(a.stands);
    const auto found = static_cast<std::int32_t>(apf.stands.size());
    const bool simaddon = apf.publisher == "simaddon";
    const bool more = archivedStands && found > *archivedStands;
    if (more && !simaddon)
        run.log.add(fmt::format("{}{} has {} parkpos while archived one has {}", "===> ", a.code, found,
                                *archivedStands));
    if (archivedStands && (!more || simaddon)) return;
    generateApf(apf, a.helipads, run);
}

void scanBgl(const fs::path& path, const ScanRun& run) {
    const auto words = readBglWords(path);
    ++gScanProgress.filesRead;
    if (!words) {
        run.log.add(fmt::format("{} could not be read", path.string()));
        return;
    }
    auto contents = decodeBgl(*words, run.msfs2024, path.string());
    for (auto& n : contents.notes) run.log.add(std::move(n));
    if (contents.notRecognised) notRecognised(path, run);
    for (auto& a : contents.airports) readAirport(a, path, run);
}

// The files a walk found, for a few workers that live as long as the walk: a thread per file
// would cost more than most files take to read.
class WorkQueue {
  public:
    explicit WorkQueue(std::size_t room) : room_(room) {}
    // False when no worker took a file for the wait's length: one of them hangs on its file.
    bool push(fs::path p) {
        std::unique_lock lock(mutex_);
        if (!space_.wait_for(lock, kFutureWait, [&] { return queue_.size() < room_; })) return false;
        queue_.push_back(std::move(p));
        ready_.notify_one();
        return true;
    }
    std::optional<fs::path> pop() {
        std::unique_lock lock(mutex_);
        ready_.wait(lock, [&] { return !queue_.empty() || closed_; });
        if (queue_.empty()) return std::nullopt;
        fs::path p = std::move(queue_.front());
        queue_.pop_front();
        space_.notify_one();
        return p;
    }
    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        ready_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable ready_, space_;
    std::deque<fs::path> queue_;
    std::size_t room_;
    bool closed_ = false;
};

void walkFolder(const fs::path& folder, const ScanRun& run) {
    run.log.add(fmt::format("Scanning for addon airports in {}", folder.string()));
    const auto workers = static_cast<std::size_t>(std::max(1, core::gRun.hardwareThreads.load()));
    WorkQueue queue(2 * workers);
    std::vector<std::future<void>> pool;
    for (std::size_t i = 0; i < workers; ++i)
        pool.push_back(std::async(std::launch::async, [&] {
            while (const auto p = queue.pop()) {
                try {
                    scanBgl(*p, run);
                } catch (const std::exception& e) {
                    run.log.add(fmt::format("{} airports search aborted, futs inner,\n{}\n{}\n{}",
                                            core::timeText(), p->string(), typeid(e).name(), e.what()));
                }
            }
        }));
    try {
        std::error_code ec;
        fs::recursive_directory_iterator it(folder, fs::directory_options::skip_permission_denied, ec), end;
        for (; !ec && it != end; it.increment(ec)) {
            if (core::gRun.stopRequested) break;
            const fs::path& p = it->path();
            std::error_code tec;
            if (it->is_directory(tec)) {
                if (isExcludedFolder(p.string())) it.disable_recursion_pending();
                continue;
            }
            if (core::toLower(p.extension().string()) != ".bgl" || isExcludedFile(p.string(), true) ||
                !hasAirportSection(p))
                continue;
            if (!queue.push(p)) throw std::runtime_error("Future wait timed out after 10 seconds");
        }
    } catch (const std::exception& e) {
        run.log.add(fmt::format("{} airports search in folder {} aborted, cause: {}", core::timeText(),
                                folder.string(), e.what()));
    }
    queue.close();
    for (auto& f : pool) f.wait();
}

bool hasPublisherInfo(const fs::path& xml) {
    pugi::xml_document doc;
    if (!doc.load_file(xml.c_str())) return false;
    std::string publisher, manufacturer, creator;
    for (const auto p : doc.document_element().child("parameters").children("parameter")) {
        const std::string name = p.attribute("name").as_string();
        const std::string value = p.attribute("value").as_string();
        if (name == "publisher") publisher = value;
        if (name == "manufacturer") manufacturer = value;
        if (name == "creator") creator = value;
    }
    const auto named = [](const std::string& s) { return s.size() >= 4 && core::toLower(s) != "merrik"; };
    return !publisher.empty() || named(manufacturer) || named(creator);
}

bool zipFolder(const fs::path& folder, const fs::path& zipFile) {
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) {
        core::log(fmt::format("[zip] Not a directory: {}", folder.string()));
        return false;
    }
    core::log(fmt::format("[zip] Target file: {}", zipFile.string()));
    core::log(fmt::format("[zip] Source dir : {}", folder.string()));
    if (fs::exists(zipFile, ec)) {
        core::log(fmt::format("[zip] Removing old zip {}", zipFile.string()));
        fs::remove(zipFile, ec);
    }
    int error = 0;
    zip_t* za = zip_open(zipFile.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    if (!za) {
        core::log("[zip] Could not open archive for writing");
        return false;
    }
    std::deque<std::string> contents; // libzip reads them at zip_close
    std::size_t added = 0;
    for (const auto& e : fs::directory_iterator(folder, ec)) {
        if (!e.is_regular_file(ec)) continue;
        std::ifstream in(e.path(), std::ios::binary);
        std::ostringstream text;
        if (!(in && text << in.rdbuf())) {
            core::log(fmt::format("[zip] READ FAIL: {}", e.path().string()));
            continue;
        }
        contents.push_back(text.str());
        const std::string name = e.path().filename().string();
        zip_source_t* src = zip_source_buffer(za, contents.back().data(), contents.back().size(), 0);
        if (!src || zip_file_add(za, name.c_str(), src, ZIP_FL_OVERWRITE | ZIP_FL_ENC_UTF_8) < 0) {
            if (src) zip_source_free(src);
            core::log(fmt::format("[zip] ERROR addData({})", name));
            continue;
        }
        core::log(fmt::format("[zip] Adding (data) {} -> {} ({} bytes)", e.path().string(), name,
                              contents.back().size()));
        ++added;
    }
    const bool closed = zip_close(za) == 0;
    if (!closed) zip_discard(za);
    const bool exists = fs::exists(zipFile, ec);
    core::log(fmt::format("[zip] Added {} files, ok_close={}, exists={}, size={} bytes", added, closed,
                          exists, exists ? fs::file_size(zipFile, ec) : 0));
    return closed && exists;
}

// The generated files of airports the data site does not hold yet go to the maintainers.
void tbloPack(const std::vector<std::string>& codes) {
    std::size_t copied = 0;
    std::error_code ec;
    for (const auto& code : codes) {
        const fs::path xml = thirdpartyFolder() / (code + ".xml");
        const auto c = refdata::AirportCode::tryMake(code);
        if (code == "KMCI") {
            pugi::xml_document doc;
            if (doc.load_file(xml.c_str()) &&
                doc.select_node("//parameter[@name='publisher'][@value='TropicalSim']")) {
                fs::remove(xml, ec);
                continue;
            }
        }
        if (!c || !refdata::airportKnown(*c)) continue;
        if (!hasPublisherInfo(xml)) {
            core::log(fmt::format("'{}' not found", xml.string()));
            continue;
        }
        const fs::path target = tbloFolder() / xml.filename();
        fs::copy_file(xml, target, fs::copy_options::overwrite_existing, ec);
        if (ec) {
            core::log(
                fmt::format("'{}' failed to copy '{}': {}", xml.string(), target.string(), ec.message()));
            continue;
        }
        core::log(fmt::format("{} copied to {}", xml.string(), target.string()));
        ++copied;
        // The generated file has more stands than the archived one: it replaces the link.
        const fs::path link = thirdpartyFolder() / (code + ".txt");
        if (fs::exists(link, ec)) {
            fs::remove(link, ec);
            if (ec) core::log(fmt::format("remove({}) failed: {}", link.string(), ec.message()));
        } else if (ec) {
            core::log(fmt::format("exists({}) failed: {}", link.string(), ec.message()));
        }
    }
    if (copied == 0) {
        core::log("All your third party airports are recognised, no off line learning needed.");
        return;
    }
    const fs::path zip = core::gPaths.programFolder / "tblo.zip";
    if (!zipFolder(tbloFolder(), zip)) {
        core::log("Zippen TBLO folder failed");
        return;
    }
    removeFilesFromDirectory(tbloFolder(), ".xml");
    core::message(fmt::format("Please send {} to the maintainers of {}: your add-on airports can then be "
                              "learned off line",
                              zip.string(), core::kAppName),
                  true);
}

// What identifies the installed add-ons: each package folder with its manifest's size and time.
std::string addonsSignature() {
    std::vector<std::string> entries;
    std::vector<fs::path> roots{sim::communityPath()};
    if (!msfs2024()) roots.push_back(sim::officialPath());
    std::error_code ec;
    for (const auto& root : roots) {
        if (root.empty()) continue;
        for (const auto& e : fs::directory_iterator(root, ec)) {
            const fs::path manifest = e.path() / "manifest.json";
            std::error_code mec;
            const auto size = fs::file_size(manifest, mec);
            const auto time = mec ? fs::file_time_type{} : fs::last_write_time(manifest, mec);
            entries.push_back(
                fmt::format("{}|{}|{}", e.path().string(), mec ? 0 : size, time.time_since_epoch().count()));
        }
    }
    std::sort(entries.begin(), entries.end());
    std::string all;
    for (const auto& e : entries) (all += e) += '\n';
    return fmt::format("{:016x} {}", refdata::fnv1a(all), entries.size());
}

} // namespace

bool isExcludedFolder(std::string_view path) {
    if (path.size() >= kMaxPathChars) return true;
    static constexpr std::string_view kWords[] = {
        "fs-base",       "tutorials",           "aircraft",   "bushtrip",
        "discovery",     "point-of-interest",   "simobjects", "vcockpits",
        "aig-aitraffic", "justflight-aircraft", "fsltl",      "gsx-pro",
        "gsx-world",     "landingchallenge"};
    const std::string l = core::toLower(path);
    return std::any_of(std::begin(kWords), std::end(kWords),
                       [&](std::string_view w) { return l.find(w) != std::string::npos; });
}

bool isExcludedFile(std::string_view path, bool addonScan) {
    const std::string l = core::toLower(path);
    return l.find("statics") != std::string::npos || l.find("_heliports") != std::string::npos ||
           (addonScan && l.find("afcad updates") != std::string::npos);
}

bool scanFolders(const std::vector<fs::path>& folders, bool automatic) {
    auto& log = scanLog();
    log.clear();
    const ScanRun run{log, msfs2024()};
    auto& progress = gScanProgress;
    progress.foldersDone = 0, progress.foldersTotal = static_cast<int>(folders.size());
    progress.filesRead = 0, progress.airportsFound = 0, progress.generated = 0, progress.linked = 0;
    progress.running = true;
    core::message("Scanning for addon airports ...");
    core::log(fmt::format("\n++++++++++++++++++++++++ airports scan {} starts +++++++++++++++++++++++++++++",
                          automatic ? "automatic " : ""));
    std::error_code ec;
    fs::remove_all(tbloFolder(), ec);
    if (!fs::create_directories(tbloFolder(), ec) && ec)
        throw std::runtime_error(fmt::format("create_directory {}: {}", tbloFolder().string(), ec.message()));
    if (!run.msfs2024) removeFilesFromDirectory(simaddonFolder());
    removeFilesFromDirectory(thirdpartyFolder());

    core::log(
        fmt::format("The scan will search {} folder{}", folders.size(), folders.size() == 1 ? "" : "s"));
    if (fs::exists(scanLogFile(), ec) && !fs::remove(scanLogFile(), ec))
        core::log(fmt::format("problems with removing previous files (maybe still open?): {}", ec.message()));
    for (const auto& folder : folders) {
        core::message(fmt::format("Scanning for addon airports in {} ...", folder.string()));
        if (fs::exists(folder, ec) && !fs::is_directory(folder, ec))
            core::log(folder.string() + " is not a folder name, skipped!");
        else if (!fs::exists(folder, ec))
            core::log(folder.string() + " does not exist, skipped!");
        else
            walkFolder(folder, run);
        ++progress.foldersDone;
        core::repaint(core::Region::MessageLine);
    }
    fs::create_directories(scanLogFile().parent_path(), ec);
    if (log.save(scanLogFile())) core::log(scanLogFile().string() + " written");
    log.clear();

    std::vector<std::string> codes;
    for (const auto& e : fs::directory_iterator(thirdpartyFolder(), ec))
        if (e.path().extension() == ".xml" && e.path().stem().string().size() == 4)
            codes.push_back(e.path().stem().string());
    std::sort(codes.begin(), codes.end());
    tbloPack(codes);
    fs::remove_all(tbloFolder(), ec);

    const bool found = fs::exists(thirdpartyFolder(), ec) && !fs::is_empty(thirdpartyFolder(), ec);
    if (!found) {
        core::log("Warning: Scan has not found any add-on airports");
        core::message("Warning: Scan has not found any add-on airports");
    } else {
        core::message(fmt::format("Airport scan: {} files read, {} airports, {} generated, {} linked",
                                  progress.filesRead.load(), progress.airportsFound.load(),
                                  progress.generated.load(), progress.linked.load()));
    }
    progress.running = false;
    core::repaint(core::Region::All);
    core::log("-------------------------- airports scan ends    ----------------------------\n");
    return found;
}

bool scanAirports(bool automatic) {
    std::vector<fs::path> folders;
    if (!msfs2024())
        if (auto official = sim::officialPath(); !official.empty()) folders.push_back(official);
    if (auto community = sim::communityPath(); !community.empty()) folders.push_back(community);
    bool found = false;
    try {
        found = scanFolders(folders, automatic);
        (void)core::writeText(addonsSignature(), signatureFile(), true);
    } catch (const std::exception& e) {
        core::log(fmt::format("airports scan: {}", e.what()));
    }
    params::set(params::parameter<params::BoolParameter>("SCAN_AIRPORTS"), false);
    return found;
}

bool addonsChanged() {
    std::string stored;
    std::ifstream in(signatureFile());
    std::getline(in, stored);
    return stored != addonsSignature();
}

std::size_t airportFileCount() {
    std::size_t n = 0;
    std::error_code ec;
    for (const auto& dir : {thirdpartyFolder(), simaddonFolder()})
        for (const auto& e : fs::directory_iterator(dir, ec))
            if (e.is_regular_file(ec)) ++n;
    return n;
}

} // namespace orv::scan
