// Who published a scenery file, in the archive's words: from its name, its package folder, and
// the package's manifest.json.
#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/core.h"
#include "refdata/refdata.h"
#include "scan/scan.h"

namespace orv::scan {

namespace {

constexpr std::uintmax_t kMaxManifestBytes = 1 << 20;

// The whole name, then each of its words (split at '-', '_', '.' and blanks), in the table.
std::string publisherInName(std::string_view name) {
    if (auto p = publisherOf(name); !p.empty()) return p;
    std::string word;
    for (std::size_t i = 0; i <= name.size(); ++i) {
        const char c = i < name.size() ? name[i] : ' ';
        if (c == '-' || c == '_' || c == '.' || c == ' ') {
            if (auto p = publisherOf(word); !word.empty() && !p.empty()) return p;
            word.clear();
        } else {
            word += c;
        }
    }
    return {};
}

// The folder right below the "Community" component of an absolute path; empty if none.
fs::path packageFolder(const fs::path& absolute) {
    fs::path walked;
    bool next = false;
    for (const auto& part : absolute) {
        walked /= part;
        if (next) return walked;
        next = core::toLower(part.string()) == "community";
    }
    return {};
}

std::string field(const nlohmann::json& j, const char* key) {
    const auto it = j.find(key);
    return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

} // namespace

void ScanLog::add(std::string line) {
    std::lock_guard lock(mutex_);
    if (lines_.size() >= kMaxLines) {
        ++dropped_;
        return;
    }
    if (lines_.capacity() == 0) lines_.reserve(2048);
    lines_.push_back(std::move(line));
}

std::vector<std::string> ScanLog::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

void ScanLog::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
    dropped_ = 0;
}

bool ScanLog::save(const fs::path& file) const {
    std::string text;
    {
        std::lock_guard lock(mutex_);
        for (const auto& l : lines_) (text += l) += '\n';
        if (dropped_ > 0) text += fmt::format("... {} more lines not kept\n", dropped_);
    }
    return core::writeText(text, file, false);
}

std::string publisherOf(std::string_view name) {
    if (name.empty()) return {};
    for (const auto& spellings : refdata::dbase().publisherSpellings)
        for (const auto& s : spellings)
            if (core::iequals(s, name)) return spellings.front();
    return {};
}

bool manifestExists(const fs::path& file) {
    std::error_code ec;
    return fs::is_regular_file(file, ec);
}

ManifestInfo readManifest(const fs::path& file) {
    ManifestInfo m;
    std::error_code ec;
    const auto size = fs::file_size(file, ec);
    if (ec || size > kMaxManifestBytes) return m;
    std::ifstream in(file, std::ios::binary);
    if (!in) return m;
    std::ostringstream text;
    text << in.rdbuf();
    const auto j = nlohmann::json::parse(text.str(), nullptr, false);
    if (j.is_discarded() || !j.is_object()) return m;
    m.manufacturer = field(j, "manufacturer");
    m.creator = field(j, "creator");
    m.title = field(j, "title");
    m.valid = true;
    return m;
}

ManifestInfo searchManifest(const fs::path& path, ScanLog& log) {
    try {
        const fs::path absolute = fs::absolute(path).lexically_normal();
        const fs::path package = packageFolder(absolute);
        if (package.empty()) return {};
        const auto found = [&](const fs::path& file) {
            log.add(file.string() + " found");
            return readManifest(file);
        };
        if (manifestExists(package / "manifest.json")) return found(package / "manifest.json");
        // Packages that keep their manifest lower down: the nearest one on the way up wins.
        for (fs::path dir = absolute.parent_path(); dir.string().size() > package.string().size();
             dir = dir.parent_path())
            if (manifestExists(dir / "manifest.json")) return found(dir / "manifest.json");
    } catch (const std::exception& e) {
        log.add(fmt::format("exception in searchManifest: {}", e.what()));
    }
    return {};
}

PublisherInfo findPublisher(const fs::path& path, ScanLog& log) {
    PublisherInfo info;
    info.stem = path.stem().string();
    log.add(fmt::format("\nTry to find publisher in: {}", path.string()));
    const std::string file = core::toLower(path.filename().string());
    if (file.find("microsoft-airport") != std::string::npos ||
        file.find("asobo-airport") != std::string::npos) {
        info.publisher = "simaddon";
        log.add(fmt::format("from filename => publisher {}", info.publisher));
        return info;
    }
    std::error_code ec;
    const fs::path package = packageFolder(fs::absolute(path, ec).lexically_normal());
    if (!package.empty()) {
        if (auto p = publisherInName(package.filename().string()); !p.empty()) {
            info.publisher = p;
            log.add(fmt::format("publisher '{}' found", p));
            return info;
        }
    }
    const auto m = searchManifest(path, log);
    if (m.valid) {
        info.manufacturer = m.manufacturer, info.creator = m.creator;
        if (auto p = publisherInName(m.manufacturer); !p.empty()) {
            info.publisher = p;
            log.add(
                fmt::format("from manifest.json: manufacturer '{}' => publisher '{}'", m.manufacturer, p));
            return info;
        }
        if (auto p = publisherInName(m.creator); !p.empty()) {
            info.publisher = p;
            log.add(fmt::format("from manifest.json: creator '{}' => publisher '{}'", m.creator, p));
            return info;
        }
    }
    log.add(fmt::format("no valid info found in manifest about publisher, manufacturer:'{}', creator:'{}' {}",
                        info.manufacturer, info.creator, path.string()));
    log.add("===> No publisher found");
    return info;
}

} // namespace orv::scan
