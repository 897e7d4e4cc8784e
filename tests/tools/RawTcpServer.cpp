#include "RawTcpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

RawTcpServer::RawTcpServer(const QByteArray& answer)
    : m_answer(answer)
{
    m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    ::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::listen(m_socket, 8);
    socklen_t length = sizeof(address);
    ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this]() { serve(); });
}

RawTcpServer::~RawTcpServer()
{
    m_stopping = true;
    m_thread.join();
    ::close(m_socket);
}

QString RawTcpServer::api() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

void RawTcpServer::serve()
{
    while (!m_stopping) {
        pollfd listening{m_socket, POLLIN, 0};
        if (::poll(&listening, 1, 20) <= 0)
            continue;
        const int connection = ::accept(m_socket, nullptr, nullptr);
        if (connection < 0)
            continue;
        QByteArray head;
        char buffer[4096];
        while (!head.contains("\r\n\r\n")) {
            pollfd readable{connection, POLLIN, 0};
            if (::poll(&readable, 1, 2000) <= 0)
                break;
            const ssize_t got = ::recv(connection, buffer, sizeof(buffer), 0);
            if (got <= 0)
                break;
            head.append(buffer, int(got));
        }
        if (!m_answer.isEmpty())
            ::send(connection, m_answer.constData(), size_t(m_answer.size()), MSG_NOSIGNAL);
        ::close(connection);
    }
}
