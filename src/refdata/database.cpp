#include "refdata/refdata.h"

namespace orv::refdata {

bool versionStep() {
    return true;
}
bool readDataFiles() {
    return readDbase();
}
void writeUnknownLists() {}

} // namespace orv::refdata
