// Discovery's check of an announcement heard on the group: JSON parse, the
// {"systemMember": {...}, "house": {...}} envelope, the checks of id, name,
// saved group and house, and the row written into the members list for a
// valid one.
//
// Input: up to 8 announcements separated by "\xff\xfe"; the first byte of
// the input chooses the sender's address.

#include <cstdint>

#include <QHostAddress>

#include <tarv>

#include "CMListRowsNode.h"
#include "Discovery.h"
#include "FuzzSupport.h"

namespace {

struct Listener
{
    Listener()
    {
        fuzzSetUpProcess();
        members = CMListRowsNode::create(&nodes, CMPath("/system/members"));
        Discovery::Options options;
        options.group = QHostAddress(QStringLiteral("239.255.77.77"));
        options.port = 41231;
        discovery = new Discovery(members, options);
        discovery->setOwnRecord(TarvSystemMember()
                                    .setId(QStringLiteral("own-device"))
                                    .setName(QStringLiteral("Kitchen"))
                                    .setHost(QStringLiteral("kitchen.local"))
                                    .setTranscoder(true));
    }

    CMNodes nodes;
    CMListRowsNode* members = nullptr;
    // Not started: no socket, only the handling of what it would hear. Lives
    // for the process, as the host's discovery does.
    Discovery* discovery = nullptr;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Listener listener;
    if (size == 0)
        return 0;
    const QHostAddress from = data[0] % 2 ? QHostAddress(QStringLiteral("10.77.0.13"))
                                          : QHostAddress(QStringLiteral("::ffff:10.77.0.14"));
    for (const QByteArray& announcement : fuzzParts(data + 1, size - 1, 8))
        listener.discovery->handleDatagram(announcement, from);
    // Devices heard are never expired here (no time passes), so the list is
    // emptied between inputs to keep each run independent and bounded.
    for (const QVariant& row : listener.members->rows()) {
        const QString id = TarvRoles(row.toHash()).id();
        if (id != QLatin1String("own-device"))
            listener.members->rowsRemoveById(id);
    }
    return 0;
}
