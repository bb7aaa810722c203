#include "app/app.h"

int main(int argc, char** argv) {
    return orv::gf_runProcess(argc, argv);
}
