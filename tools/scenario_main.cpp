// orvelline-scenario: a recording against the emulated simulator on virtual time, for diagnosis.
#include <string>
#include <vector>

#include "platform/platform.h"
#include "scenario.h"

int main(int argc, char** argv) {
    return orv::scenario::scenarioMain(std::vector<std::string>(argv + 1, argv + argc),
                                       orv::platform::executableFolder());
}
