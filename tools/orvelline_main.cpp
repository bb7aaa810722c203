// The program's entry: a scenario run when asked for one, else the program itself.
#include <string>
#include <string_view>
#include <vector>

#include "app/app.h"
#include "platform/platform.h"
#include "scenario.h"

int main(int argc, char** argv) {
    if (argc >= 2 && std::string_view(argv[1]) == "--scenario")
        return orv::scenario::gf_scenarioMain(std::vector<std::string>(argv + 1, argv + argc),
                                              orv::platform::executableFolder());
    return orv::gf_runProcess(argc, argv);
}
