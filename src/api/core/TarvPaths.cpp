#include "TarvPaths.h"

#include <atomic>

CMPath TarvSystemMemberPath() { return CMPath("/system/member"); }
CMPath TarvSystemMemberIdPath() { return CMPath("/system/member/id"); }
CMPath TarvSystemMembersPath() { return CMPath("/system/members"); }
CMPath TarvDeviceStatePath() { return CMPath("/system/deviceState"); }
CMPath TarvGroupingMembersPath() { return CMPath("/grouping/members"); }
CMPath TarvGroupingMembersRemoveReceiverPath() { return CMPath("/grouping/removeReceiver"); }
CMPath TarvGroupingRequestPath() { return CMPath("/grouping/request"); }
CMPath TarvGroupingPersistentGroupSettingsPath() { return CMPath("/settings/grouping/persistentGroup"); }
CMPath TarvGroupingPersistentGroupSavePath() { return CMPath("/grouping/persistentGroup/save"); }
CMPath TarvGroupingUIPath() { return CMPath("/ui/grouping"); }
CMPath TarvGroupingUILeavePath() { return CMPath("/ui/grouping/leave"); }
CMPath TarvStopStreamingTimeoutPath() { return CMPath("/settings/streaming/stopTimeout"); }
CMPath TarvRequestStreamingTimeoutPath() { return CMPath("/settings/streaming/requestTimeout"); }
CMPath TarvDeviceNameSettingsPath() { return CMPath("/settings/device/name"); }
CMPath TarvPlayerDataPath() { return CMPath("/player/data"); }

namespace {
std::atomic<quint16> requestPort{TarvDefaultRequestPort};
}

quint16 TarvRequestPort()
{
    return requestPort.load();
}

void TarvSetRequestPort(quint16 port)
{
    requestPort.store(port);
}
