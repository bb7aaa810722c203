// The program's entry: a scenario run when asked for one, else the program itself.
#include <string>
#include <string_view>
#include <vector>

#include "core/core.h"
#include "platform/platform.h"
#include "run/run.h"
#include "scenario.h"

int main(int argc, char** argv) {
    if (argc >= 2 && std::string_view(argv[1]) == "--scenario")
        return orv::scenario::scenarioMain(std::vector<std::string>(argv + 1, argv + argc),
                                           orv::platform::executableFolder());
    return orv::run::runProcess(argc, argv);
}
