// orvelline-data: the project's data chores: recordings, reference files, livery packages.
#include <iostream>
#include <string>
#include <vector>

#include "recording.h"
#include "refdata/refdata.h"

namespace {
constexpr const char* kUsage = R"(Usage: orvelline-data COMMAND ...

  convert --readsb FILE -o OUT
      a readsb "globe history" trace (JSON) into a traffic recording
  convert --opensky FILE [--flights CS1,CS2] [--type TYPE] [--type CALLSIGN=TYPE] -o OUT
      OpenSky state rows (a JSON array; gunzip first) into a traffic recording. OpenSky rows
      carry no aircraft type, so --type gives one (a default, or per callsign)

  refdata SOURCE_FOLDER INPUT_FOLDER
      builds the encrypted reference files (dbase.enc, airports.enc, AIG-regcodes.enc) from
      data/refdata into INPUT_FOLDER; the build runs it for the program folder of each preset
  liveries OUT_FOLDER [--files N]
      writes a Community folder of AI livery packages shaped like the real ones (AIG, FSLTL,
      JF, IVAO MTL, user-aitraffic) with their quirks: the fixed set in data/liveries, or with
      --files a corpus of N aircraft.cfg files of five sections each, for benchmarks
  encrypt IN OUT, decrypt IN OUT
      turn a plain reference file into the program's encrypted form and back

A traffic recording holds one traffic line per point, in time order, in the wire format of
RealTraffic's UDP feed; points on the ground have altitude 0.
)";
}

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h") {
        std::cout << kUsage;
        return args.empty() ? 2 : 0;
    }
    try {
        const std::string cmd = args[0];
        args.erase(args.begin());
        if (cmd == "convert") return orv::tools::convertMain(args);
        if (cmd == "refdata") return orv::tools::refdataMain(args);
        if (cmd == "liveries") return orv::tools::liveriesMain(args);
        if (cmd == "encrypt" || cmd == "decrypt") {
            if (args.size() != 2) throw std::runtime_error(cmd + " needs IN and OUT");
            if (cmd == "decrypt") {
                if (!orv::refdata::streamDecrypt(args[0], args[1]))
                    throw std::runtime_error("cannot decrypt " + args[0] +
                                             " (wrong file, key or a damaged chunk)");
            } else if (auto err = orv::refdata::streamEncrypt(args[0], args[1]); !err.empty()) {
                throw std::runtime_error(err);
            }
            return 0;
        }
        std::cerr << "orvelline-data: unknown command '" << cmd << "'\n" << kUsage;
        return 2;
    } catch (const std::exception& e) {
        std::cerr << "orvelline-data: " << e.what() << '\n';
        return 1;
    }
}
