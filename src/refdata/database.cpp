#include "refdata/refdata.h"

namespace orv {

// The reference files arrive with the reference database; until then there is nothing to read.
bool gf_versionStep() {
    return true;
}
bool gf_readDataFiles() {
    gf_airlineId("");
    gf_modelId("");
    return true;
}
void gf_writeUnknownLists() {}

} // namespace orv
