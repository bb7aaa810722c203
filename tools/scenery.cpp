// A Community/Official-like scenery tree for the airport scan's tests and benchmark: copies of the
// real airport files in data/scenery under other package names and idents, files without
// airports, and manifest.json files of every shape the scan meets.
#include <fstream>
#include <iostream>
#include <stdexcept>

#include <fmt/format.h>

#include "recording.h"
#include "scan/scan.h"

namespace orv::tools {

namespace {

namespace fs = std::filesystem;

std::vector<std::uint32_t> words(const fs::path& file) {
    auto w = scan::readBglWords(file);
    if (!w) throw std::runtime_error("cannot read " + file.string());
    return *w;
}

void writeWords(const std::vector<std::uint32_t>& w, const fs::path& file) {
    fs::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    for (const std::uint32_t v : w) {
        const char b[4] = {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8 & 0xFF),
                           static_cast<char>(v >> 16 & 0xFF), static_cast<char>(v >> 24 & 0xFF)};
        out.write(b, 4);
    }
    if (!out) throw std::runtime_error("cannot write " + file.string());
}

void writeFile(const fs::path& file, std::string_view text) {
    fs::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + file.string());
}

// The word of the first airport record that holds its packed ident.
std::size_t identWord(const std::vector<std::uint32_t>& w) {
    for (std::size_t k = 0; k < w[5]; ++k) {
        const std::size_t e = 14 + 5 * k;
        if (w.at(e) != scan::kAirportSectionType) continue;
        const std::size_t r = w.at(w.at(e + 3) / 4 + 2) / 4;
        if ((w.at(r) & 0xFFFF) == scan::kAirportRecord) return r + 10;
    }
    throw std::runtime_error("no airport record");
}

} // namespace

std::uint32_t packIcao(std::string_view code) {
    std::uint32_t v = 0;
    for (const char c : code) {
        const std::uint32_t digit = c >= '0' && c <= '9' ? static_cast<std::uint32_t>(c - '0') + 2
                                                         : static_cast<std::uint32_t>(c - 'A') + 12;
        v = v * 38 + digit;
    }
    return v << 5;
}

SceneryTree writeSceneryTree(const fs::path& out, const fs::path& dataFolder, int files) {
    const fs::path src = dataFolder / "scenery";
    const std::vector<std::vector<std::uint32_t>> airports{words(src / "egtk-a39a6c8a.bgl"),
                                                           words(src / "egtk-f7847361.bgl")};
    const std::vector<fs::path> others{src / "egtk-terrain-only.bgl", src / "fpl2scn-objects-only.bgl",
                                       src / "ktst-p3d-v5.bgl", src / "ktst-p3d-v6.bgl"};
    std::string realManifest;
    {
        std::ifstream in(src / "fpl2scn-manifest.json", std::ios::binary);
        realManifest.assign(std::istreambuf_iterator<char>(in), {});
    }
    // Idents the airport directory knows, stock ones left out; the first few have archived files.
    std::vector<std::string> idents{"EGLC", "LSZH", "EGTK", "EKCH", "LOWW", "KPSP", "YBBN"};
    for (const auto& row : readRows(dataFolder / "refdata/airports.csv", true))
        if (!row.empty() && row[0].size() == 4 && row[0] != "KMSP" && row[0] != "EHAM" &&
            std::find(idents.begin(), idents.end(), row[0]) == idents.end())
            idents.push_back(row[0]);
    const int airportFiles = std::max(3, files / 200);
    SceneryTree tree;
    const fs::path community = out / "Community", official = out / "Official" / "OneStore";
    for (int i = 0; i < airportFiles && i < static_cast<int>(idents.size()); ++i) {
        const std::string& code = idents[static_cast<std::size_t>(i)];
        std::string lowerCode = code;
        for (auto& c : lowerCode) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        auto w = airports[static_cast<std::size_t>(i) % airports.size()];
        const std::size_t at = identWord(w);
        w[at] = packIcao(code) | (w[at] & 0x1F);
        fs::path package, bgl;
        switch (i % 9) {
        case 0: // publisher in the folder's name
            package = community / fmt::format("orbx-airport-{}", lowerCode);
            break;
        case 1: // the simulator's own add-on, by its file's name
            package = official / fmt::format("microsoft-airport-{}", lowerCode);
            bgl = package / "scenery" / fmt::format("microsoft-airport-{}.bgl", lowerCode);
            break;
        case 2: // the real manifest: no publisher the table knows
            package = community / fmt::format("alfonso-{}-scenery", lowerCode);
            writeFile(package / "manifest.json", realManifest);
            break;
        case 3:
            package = community / fmt::format("ft-{}", lowerCode);
            writeFile(package / "manifest.json", R"({"title":"x","manufacturer":"FlyTampa","creator":""})");
            break;
        case 4: // a manufacturer the table does not know, a creator it does
            package = community / fmt::format("airport-{}-hd", lowerCode);
            writeFile(package / "manifest.json", R"({"manufacturer":"Someone Studio","creator":"Aerosoft"})");
            break;
        case 5:
            package = community / fmt::format("scn-{}", lowerCode);
            writeFile(package / "manifest.json", R"({"manufacturer":5,"creator":null,"title":["x"]})");
            break;
        case 6:
            package = community / fmt::format("broken-{}", lowerCode);
            writeFile(package / "manifest.json", "{\"manufacturer\": \"Orbx\", ");
            break;
        case 7:
            package = community / fmt::format("nomanifest-{}", lowerCode);
            break;
        default: // a manifest below the package folder
            package = community / fmt::format("deep-{}", lowerCode);
            writeFile(package / "content" / "manifest.json", R"({"creator":"Just Flight"})");
            bgl = package / "content" / "scenery" / "airport.bgl";
        }
        if (bgl.empty()) bgl = package / "scenery" / "global" / fmt::format("{}-airport.bgl", lowerCode);
        writeWords(w, bgl);
        tree.airports.push_back({code, bgl});
    }
    // The rest: files without airports, fifty to a package, and some where the scan never looks.
    for (int i = airportFiles; i < files; ++i) {
        const int n = i - airportFiles;
        fs::path package = community / fmt::format("mesh-pack-{:03}", n / 50);
        if (n % 97 == 5) package = community / "fsltl-traffic-base";
        if (n % 89 == 7) package = community / "some-airport" / "statics";
        const fs::path target = package / "scenery" / fmt::format("tile{:05}.bgl", n);
        fs::create_directories(target.parent_path());
        // Mostly terrain and objects; now and then a Prepar3D airport, which must be read to be skipped.
        const std::size_t kind =
            n % 25 == 24 ? 2 + static_cast<std::size_t>(n / 25) % 2 : static_cast<std::size_t>(n) % 2;
        fs::copy_file(others[kind], target, fs::copy_options::overwrite_existing);
        if (n % 50 == 0 && !fs::exists(package / "manifest.json"))
            writeFile(package / "manifest.json", R"({"title":"mesh","creator":"nobody"})");
    }
    tree.files = files;
    return tree;
}

int sceneryMain(const std::vector<std::string>& args) {
    if (args.empty()) throw std::runtime_error("scenery needs OUT [--files N] [--data DIR]");
    const fs::path out = args[0];
    int files = 40;
    fs::path data = "data";
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--files" && i + 1 < args.size())
            files = std::stoi(args[++i]);
        else if (args[i] == "--data" && i + 1 < args.size())
            data = args[++i];
        else
            throw std::runtime_error("unknown option " + args[i]);
    }
    const auto tree = writeSceneryTree(out, data, files);
    std::cout << fmt::format("{}: {} BGL files, {} of them with an airport\n", out.string(), tree.files,
                             tree.airports.size());
    return 0;
}

} // namespace orv::tools
