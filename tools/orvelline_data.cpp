// orvelline-data: the project's data chores: recordings, reference files, livery packages.
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "recording.h"
#include "refdata/refdata.h"

namespace {

// A command whose own arguments its tool function reads; CLI11 only picks the command.
void addCommand(CLI::App& app, const char* name, const char* usage, std::vector<std::string>& rest) {
    auto* c = app.add_subcommand(name, usage);
    c->allow_extras();
    c->prefix_command();
    c->callback([c, &rest] { rest = c->remaining(); });
}

int crypt(const std::string& command, const std::vector<std::string>& args) {
    if (args.size() != 2) throw std::runtime_error(command + " needs IN and OUT");
    if (command == "decrypt") {
        if (!orv::refdata::streamDecrypt(args[0], args[1]))
            throw std::runtime_error("cannot decrypt " + args[0] + " (wrong file, key or a damaged chunk)");
    } else if (auto err = orv::refdata::streamEncrypt(args[0], args[1]); !err.empty()) {
        throw std::runtime_error(err);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"The project's data chores: recordings, reference files, livery packages.",
                 "orvelline-data"};
    app.footer("A traffic recording holds one traffic line per point, in time order, in the wire format of "
               "RealTraffic's UDP feed; points on the ground have altitude 0.");
    app.require_subcommand(1);
    std::vector<std::string> rest;
    addCommand(
        app, "convert",
        "--readsb FILE -o OUT: a readsb \"globe history\" trace (JSON) into a traffic recording; "
        "--opensky FILE [--flights CS1,CS2] [--type TYPE] [--type CALLSIGN=TYPE] -o OUT: OpenSky state "
        "rows (a JSON array; gunzip first), which carry no aircraft type, so --type gives one",
        rest);
    addCommand(app, "refdata",
               "SOURCE_FOLDER INPUT_FOLDER: the encrypted reference files (dbase.enc, airports.enc, "
               "AIG-regcodes.enc) from data/refdata; the build runs it for the program folder of each preset",
               rest);
    addCommand(
        app, "liveries",
        "OUT_FOLDER [--files N]: a Community folder of AI livery packages shaped like the real ones, "
        "the fixed set in data/liveries, or with --files a corpus of N aircraft.cfg files for benchmarks",
        rest);
    addCommand(app, "site",
               "OUT [--data DIR]: the data site's file tree (downloads/MSFS/archive/stock/CODE.xml for each "
               "stock airport of the directory), from the stand lists and traffic sources in data/",
               rest);
    addCommand(
        app, "scenery",
        "OUT [--files N] [--data DIR]: a Community/Official-like tree of N BGL files (copies of the real "
        "airport files in data/scenery under other packages and idents, files without airports) with "
        "manifest.json files of every shape",
        rest);
    addCommand(app, "serve", "DIR [--port N]: serves a data site's tree on 127.0.0.1 (port 0: any free port)",
               rest);
    addCommand(app, "encrypt", "IN OUT: a plain reference file into the program's encrypted form", rest);
    addCommand(app, "decrypt", "IN OUT: an encrypted reference file back into plain text", rest);
    CLI11_PARSE(app, argc, argv);
    const std::string command = app.get_subcommands().front()->get_name();
    try {
        if (command == "convert") return orv::tools::convertMain(rest);
        if (command == "refdata") return orv::tools::refdataMain(rest);
        if (command == "liveries") return orv::tools::liveriesMain(rest);
        if (command == "scenery") return orv::tools::sceneryMain(rest);
        if (command == "site" || command == "serve") return orv::tools::airportsMain(command, rest);
        return crypt(command, rest);
    } catch (const std::exception& e) {
        std::cerr << "orvelline-data: " << e.what() << '\n';
        return 1;
    }
}
