#include "CannedServer.h"

#include <chrono>

CannedServer::CannedServer()
{
    const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
    };
    m_server.Get(".*", handler);
    m_server.Put(".*", handler);
    m_server.Post(".*", handler);
    m_server.Delete(".*", handler);
    m_port = m_server.bind_to_any_port("127.0.0.1");
    // Bound before the thread starts: connections queue until it listens.
    m_thread = std::thread([this]() { m_server.listen_after_bind(); });
    // stop() is a no-op until the loop runs; waiting here means the
    // destructor always ends it, however short the server's life.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!m_server.is_running() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

CannedServer::~CannedServer()
{
    release();
    m_server.stop();
    m_thread.join();
}

QString CannedServer::api() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

void CannedServer::answer(const QString& method, const QString& endpoint, int status, const QByteArray& body,
                          const QString& contentType)
{
    Canned canned;
    canned.status = status;
    canned.body = body;
    canned.contentType = contentType.toStdString();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_canned.insert(method + QLatin1Char(' ') + endpoint, canned);
}

void CannedServer::hold(const QString& method, const QString& endpoint)
{
    Canned canned;
    canned.kind = Canned::Hold;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_canned.insert(method + QLatin1Char(' ') + endpoint, canned);
}

void CannedServer::stream(const QString& endpoint, const QList<QByteArray>& chunks, bool keepOpen, int gapMs)
{
    Canned canned;
    canned.kind = Canned::Stream;
    canned.chunks = chunks;
    canned.keepOpen = keepOpen;
    canned.gapMs = gapMs;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_canned.insert(QStringLiteral("GET ") + endpoint, canned);
}

void CannedServer::answerAfter(const QString& trigger, const QString& method, const QString& endpoint, int status,
                               const QByteArray& body)
{
    Canned canned;
    canned.status = status;
    canned.body = body;
    canned.contentType = "application/json";
    std::lock_guard<std::mutex> lock(m_mutex);
    m_later.insert(trigger, qMakePair(method + QLatin1Char(' ') + endpoint, canned));
}

void CannedServer::release()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
    }
    m_releasedChanged.notify_all();
}

bool CannedServer::waitReleased(int ms)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_releasedChanged.wait_for(lock, std::chrono::milliseconds(ms), [this]() { return m_released; });
}

QList<CannedServer::Received> CannedServer::received() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
}

void CannedServer::handle(const httplib::Request& request, httplib::Response& response)
{
    Received received;
    received.method = QString::fromStdString(request.method);
    received.path = QString::fromStdString(request.path);
    for (const auto& param : request.params)
        received.params.insert(QString::fromStdString(param.first), QString::fromStdString(param.second));
    received.body = QByteArray::fromStdString(request.body);
    received.contentType = QString::fromStdString(request.get_header_value("Content-Type"));
    received.host = QString::fromStdString(request.get_header_value("Host"));

    Canned canned;
    bool found = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_received.append(received);
        const QString key = received.method + QLatin1Char(' ') + received.path;
        // An answer for one path of an endpoint wins over the endpoint's.
        const QString pathKey = key + QStringLiteral("?path=") + received.params.value(QStringLiteral("path"));
        found = m_canned.contains(pathKey) || m_canned.contains(key);
        if (found)
            canned = m_canned.value(m_canned.contains(pathKey) ? pathKey : key);
        // Taken now, so the very next request already sees the change.
        for (const QPair<QString, Canned>& later : m_later.values(key))
            m_canned.insert(later.first, later.second);
        m_later.remove(key);
    }
    if (!found) {
        response.status = 404;
        response.set_content(R"({"error":{"name":"NotFound","title":"Not found","message":"no such endpoint"}})",
                             "application/json");
        return;
    }
    switch (canned.kind) {
    case Canned::Plain:
        response.status = canned.status;
        response.set_content(canned.body.toStdString(), canned.contentType);
        return;
    case Canned::Hold:
        // Bounded, so a forgotten release cannot hang the test's end.
        waitReleased(5000);
        response.status = 200;
        response.set_content(R"({"result":true})", "application/json");
        return;
    case Canned::Stream:
        response.status = 200;
        response.set_chunked_content_provider(
            "text/event-stream", [this, canned](size_t, httplib::DataSink& sink) {
                for (const QByteArray& chunk : canned.chunks) {
                    if (canned.gapMs > 0 && waitReleased(canned.gapMs))
                        break;
                    if (!sink.write(chunk.constData(), size_t(chunk.size())))
                        return false;
                }
                if (canned.keepOpen) {
                    // Until released or the client has gone (writes then fail).
                    for (int i = 0; i < 100 && !waitReleased(50); ++i) {
                        if (!sink.is_writable() || !sink.write(": keep-alive\n", 13))
                            return false;
                    }
                }
                sink.done();
                return true;
            });
        return;
    }
}
