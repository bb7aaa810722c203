// Start-up reading of the reference files at full size: 60,000 registrations, 15,000 airports.
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "refdata/refdata.h"

namespace {

namespace fs = std::filesystem;
using namespace orv;

std::string code(unsigned n, int len) {
    std::string s(static_cast<std::size_t>(len), 'A');
    for (int i = len - 1; i >= 0; --i, n /= 26)
        s[static_cast<std::size_t>(i)] = static_cast<char>('A' + n % 26);
    return s;
}

struct Files {
    fs::path dir, dbase, airports;
    Files() {
        dir = fs::temp_directory_path() / fmt::format("orv-bench-{}", ::getpid());
        fs::create_directories(dir);
        std::string types, airlines;
        for (unsigned i = 0; i < 2000; ++i) types += (i ? "," : "") + code(i, 4);
        for (unsigned i = 0; i < 6000; ++i) airlines += (i ? "," : "") + code(i, 3);
        std::string x = fmt::format("<root><aircrafts><aircraft types=\"{}\"/></aircrafts>", types);
        for (const char* s : {"cargo_types>cargo_type", "heavy>hvy", "large>lar", "buzjet>bzj",
                              "high_performance>hpf", "rotorcraft>rot"}) {
            const std::string sec(s);
            const auto gt = sec.find('>');
            x += fmt::format("<{0}><{1} types=\"AAAB\"/></{0}>", sec.substr(0, gt), sec.substr(gt + 1));
        }
        x += fmt::format("<ICAO_airlines><ICAO codes=\"{}\"/></ICAO_airlines>", airlines);
        x += "<cargo_operators><ICAO codes=\"AAB\"/></cargo_operators><simaddons20><simaddon20 "
             "arpts=\"EHAM\"/>"
             "</simaddons20><dbase>";
        for (unsigned i = 0; i < 60000; ++i)
            x += fmt::format("<d r=\"{}-{}\" a=\"{}\" m=\"{}\" o=\"\" c=\"false\"/>", code(i % 26, 1),
                             code(i, 4), code(i % 6000, 3), code(i % 2000, 4));
        x += "</dbase></root>";
        dbase = encrypt("dbase", x);
        std::string a = "<root><airports>";
        for (unsigned i = 0; i < 15000; ++i)
            a +=
                fmt::format("<ap c=\"{}\" la=\"{:.4f}\" lo=\"{:.4f}\" a=\"{}\" i=\"{}\" s=\"{}\"/>",
                            code(i, 4), -60.0 + (i % 120), -170.0 + (i % 340), i % 5000, i % 200, code(i, 3));
        a += "</airports></root>";
        airports = encrypt("airports", a);
    }
    ~Files() { fs::remove_all(dir); }
    fs::path encrypt(const std::string& name, const std::string& text) {
        const auto plain = dir / (name + ".src");
        std::ofstream(plain, std::ios::binary) << text;
        const auto enc = dir / (name + ".enc");
        if (auto err = refdata::streamEncrypt(plain, enc); !err.empty()) throw std::runtime_error(err);
        return enc;
    }
};

void BM_ReadDbaseAndAirports(benchmark::State& state) {
    static Files files;
    for (auto _ : state) {
        benchmark::DoNotOptimize(refdata::loadDbase(files.dbase));
        benchmark::DoNotOptimize(refdata::loadAirports(files.airports));
    }
    state.counters["records"] = static_cast<double>(refdata::dbase().records.size());
    state.counters["airports"] = static_cast<double>(refdata::airports().size());
}
BENCHMARK(BM_ReadDbaseAndAirports)->Unit(benchmark::kMillisecond);

} // namespace
