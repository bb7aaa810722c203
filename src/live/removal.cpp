// The one road out of the table and the simulator, whatever the reason.
#include <algorithm>

#include <fmt/format.h>

#include "core/core.h"
#include "live/internal.h"

namespace orv::live {

void removeAircraftFromSim(LiveAc& ac) {
    auto& e = gEngine;
    switch (ac.simState) {
    case SimState::Buffer:
        ac.dropNow = true;
        return;
    case SimState::Adding2Sim: {
        if (ac.dropNow || ac.dropSilently || ac.removeWhenCreated) return;
        // Not asked of the simulator yet: it is simply forgotten, so no create is followed by a delete.
        const auto queued = std::find_if(e.spawnQueue.begin(), e.spawnQueue.end(),
                                         [&](const SpawnRequest& r) { return r.hexid == ac.hexid; });
        const auto stacked = std::find(e.addingStack.begin(), e.addingStack.end(), ac.hexid);
        if (queued != e.spawnQueue.end() || stacked != e.addingStack.end()) {
            if (queued != e.spawnQueue.end()) e.spawnQueue.erase(queued);
            if (stacked != e.addingStack.end()) e.addingStack.erase(stacked);
            ac.dropSilently = true;
        } else {
            ac.removeWhenCreated = true;
        }
        return;
    }
    case SimState::RemovingFromSim:
        return;
    default:
        break;
    }
    if (ac.hexid >= 10001) ac.atStand = false; // the stand is free for others again
    if (ac.simState == SimState::Active && e.activeCountedAt == e.tick && e.activeCount > 0) --e.activeCount;
    ac.simState = SimState::RemovingFromSim;
    if (ac.objectId != 0 && ac.objectId == e.callsignLookupObject) e.callsignLookupObject = 0;
    if (ac.objectId != 0)
        e.removeQueue.push_back(ac.objectId);
    else
        core::log(
            fmt::format("{} removing act {}, with objectid=0 ?", "removeAircraftFromSim", describeAc(ac)));
}

void removeAll() {
    auto& e = gEngine;
    for (auto& ac : e.liveTable) {
        if (ac.simState == SimState::LiveryRespawn) {
            // Its object is on its way out already; the record must only not come back.
            ac.simState = SimState::RemovingFromSim;
            continue;
        }
        removeAircraftFromSim(ac);
    }
    e.staticSpawnQueue.clear();
    e.liveTable.eraseIf([](const LiveAc& ac) { return ac.dropNow || ac.dropSilently; });
}

void onRemoved(std::uint32_t objectId) {
    auto& t = gEngine.liveTable;
    const auto it =
        std::find_if(t.begin(), t.end(), [&](const LiveAc& ac) { return ac.objectId == objectId; });
    if (it == t.end()) return;
    LiveAc& ac = *it;
    if (ac.simState == SimState::LiveryRespawn) {
        ac.simState = SimState::Buffer;
        ac.objectId = 0;
        ac.controls.throttleIndex = 5;
        ac.controls.flapsIndex = 4;
        ac.controls.gearState = ac.controls.spoilersState = -1;
        ac.controls.lightsKnown = 0;
        return;
    }
    if (ac.flightPlanCreated) gEngine.plansToRemove.push_back(ac.hexid);
    t.erase(it);
}

bool callsignInUse(std::string_view callsign) {
    const auto& t = gEngine.liveTable;
    return std::any_of(t.begin(), t.end(), [&](const LiveAc& ac) { return ac.callsign == callsign; });
}

std::string parkedOn(std::uint32_t stand) {
    for (const auto& ac : gEngine.liveTable)
        if ((ac.phase == Phase::Parked || ac.phase == Phase::Parking) &&
            ac.stand.id == static_cast<std::int32_t>(stand))
            return ac.callsign;
    return {};
}

void onBlocked(std::uint32_t hexid) {
    LiveAc* ac = findByHexid(hexid);
    if (!ac) return;
    if (ac->simState == SimState::Active) {
        core::log(fmt::format("{} removed from simulator immediately while blocked", describeAc(*ac)));
        removeAircraftFromSim(*ac);
    } else if (ac->simState == SimState::Buffer) {
        core::log(fmt::format("{} will be removed from buffer while blocked", describeAc(*ac)));
        ac->dropNow = true;
    }
}

} // namespace orv::live
