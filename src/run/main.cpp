// The program's entry.
#include "run/run.h"

int main(int argc, char** argv) {
    return orv::run::runProcess(argc, argv);
}
