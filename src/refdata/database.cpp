#include "refdata/refdata.h"

namespace orv {

bool gf_versionStep() {
    return true;
}
bool gf_readDataFiles() {
    return gf_readDbase();
}
void gf_writeUnknownLists() {}

} // namespace orv
