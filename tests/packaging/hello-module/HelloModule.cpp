// The smallest module: a worker and one value, /hello/greeting, that names
// the library version it was built against.
#include <QVariantHash>

#include <CMNodesWorker.h>
#include <CMRootWorker.h>
#include <tarv>

extern "C" CMAbstractWorker* worker_create(void* /*first*/, const QVariantHash& settings)
{
    CMRoot()->defineValue(CMPath("/hello/greeting"),
                          TarvValue().setString_(QStringLiteral("hello from a module built against TarvApi " TARV_API_VERSION)));
    return new CMNodesWorker(settings, QStringLiteral("HelloWorker"));
}
