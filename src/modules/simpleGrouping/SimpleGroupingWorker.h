#pragma once

#include <QVariantHash>

#include <model/cmrequest>
#include <tarv>

#include "SimpleGroupingCtrl.h"
#include "SimpleGroupingObserver.h"
#include "SimpleGroupingRequest.h"
#include "SimpleGroupingUI.h"

// The module object: the one worker the host knows. It publishes the
// module's list node ("VopGrouping") at its prefix and the remove-receiver
// action, creates the components, and wires them 100 ms after construction.
// The components live for the whole process: they are created without a
// parent and never deleted.
class SimpleGroupingWorker : public CMNodesWorker
{
    Q_OBJECT

public:
    explicit SimpleGroupingWorker(const QVariantHash& settings);

    // The components, for inspection. The worker never deletes them.
    SimpleGroupingCtrl* controller() const { return m_ctrl; }
    SimpleGroupingUI* ui() const { return m_ui; }
    SimpleGroupingRequest* request() const { return m_request; }
    SimpleGroupingObserver* observer() const { return m_observer; }

Q_SIGNALS:
    void requestRemoveReceiver(const TarvSystemMember& member);

public Q_SLOTS:
    void init();
    void on_remove_receiver(const CMSetDataRequest& request);

private:
    CMListRowsNode* m_listNode = nullptr;
    SimpleGroupingCtrl* m_ctrl = nullptr;
    SimpleGroupingUI* m_ui = nullptr;
    SimpleGroupingRequest* m_request = nullptr;
    SimpleGroupingObserver* m_observer = nullptr;
    CMActivateNode* m_removeReceiverNode = nullptr;
};

// The module's entry point, exported undecorated and the only symbol the
// module exports. The first argument is the host's business and ignored;
// ownership of the returned worker passes to the host.
extern "C" Q_DECL_EXPORT CMAbstractWorker* worker_create(void* first, const QVariantHash& settings);
