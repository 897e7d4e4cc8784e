#pragma once

#include <QtGlobal>

#include "CMPath.h"

// Every path of the system, in one place.
CMPath TarvSystemMemberPath();                     // /system/member
CMPath TarvSystemMemberIdPath();                   // /system/member/id
CMPath TarvSystemMembersPath();                    // /system/members
CMPath TarvDeviceStatePath();                      // /system/deviceState
CMPath TarvGroupingMembersPath();                  // /grouping/members
CMPath TarvGroupingMembersRemoveReceiverPath();    // /grouping/removeReceiver
CMPath TarvGroupingRequestPath();                  // /grouping/request
CMPath TarvGroupingPersistentGroupSettingsPath();  // /settings/grouping/persistentGroup
CMPath TarvGroupingPersistentGroupSavePath();      // /grouping/persistentGroup/save
CMPath TarvGroupingUIPath();                       // /ui/grouping
CMPath TarvGroupingUILeavePath();                  // /ui/grouping/leave
CMPath TarvStopStreamingTimeoutPath();             // /settings/streaming/stopTimeout
CMPath TarvRequestStreamingTimeoutPath();          // /settings/streaming/requestTimeout
CMPath TarvDeviceNameSettingsPath();               // /settings/device/name
CMPath TarvPlayerDataPath();                       // /player/data

// The UDP port of the receiver link: the same on every device. The host's
// configuration may override it (tests use a free port).
constexpr quint16 TarvDefaultRequestPort = 41230;
quint16 TarvRequestPort();
void TarvSetRequestPort(quint16 port);
