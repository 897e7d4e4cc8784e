// A bounded flood of garbage datagrams for the lab (scripts/lab flood):
// sends to HOST:PORT at RATE datagrams per second for SECONDS seconds, then
// stops and prints how many it sent: fewer than RATE * SECONDS when the
// machine could not keep up, as it never runs longer than SECONDS + 1 s.
// Kinds: "garbage" (no known prefix), "badjson" ("add" followed by broken
// JSON) or "mixed" (alternating).
//
//   lab_flood HOST PORT RATE SECONDS KIND

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Far above what any sender on a LAN needs to prove the point, and short
// enough that a mistyped command cannot keep a machine busy for long.
constexpr long MaxRate = 200000;
constexpr long MaxSeconds = 600;

bool number(const char* text, long min, long max, long* value)
{
    char* end = nullptr;
    errno = 0;
    const long parsed = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || parsed < min || parsed > max)
        return false;
    *value = parsed;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    long port = 0, rate = 0, seconds = 0;
    in_addr address{};
    const std::string kind = argc == 6 ? argv[5] : "";
    if (argc != 6 || inet_pton(AF_INET, argv[1], &address) != 1 || !number(argv[2], 1, 65535, &port)
        || !number(argv[3], 1, MaxRate, &rate) || !number(argv[4], 1, MaxSeconds, &seconds)
        || (kind != "garbage" && kind != "badjson" && kind != "mixed")) {
        std::fprintf(stderr,
                     "usage: lab_flood IPV4 PORT RATE SECONDS garbage|badjson|mixed (RATE 1..%ld per second, "
                     "SECONDS 1..%ld)\n",
                     MaxRate, MaxSeconds);
        return 2;
    }
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        std::perror("lab_flood: socket");
        return 1;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr = address;

    static const char Garbage[] = "GARBAGE-DATAGRAM 0123456789abcdefghijklmnopqrstuvwxyz";
    static const char BadJson[] = "add{\"id\": \"flood\", \"name\": \"flood\", \"host\": ";
    const long total = rate * seconds;
    long sent = 0, failed = 0;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    // Sends what the rate allows so far, then sleeps a millisecond: the
    // datagrams go out in bursts of rate/1000, evenly over the run. A busy
    // machine may keep the sender below its rate; it still stops one second
    // after its time at the latest, and the report shows fewer datagrams.
    const double limit = double(seconds) + 1.0;
    const auto elapsedS = [&start] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    bool late = false;
    while (sent + failed < total && !late && elapsedS() < limit) {
        const long due = std::min(total, static_cast<long>(elapsedS() * double(rate)) + 1);
        while (sent + failed < due) {
            const bool garbage = kind == "garbage" || (kind == "mixed" && (sent + failed) % 2 == 0);
            const char* data = garbage ? Garbage : BadJson;
            const size_t size = garbage ? sizeof(Garbage) - 1 : sizeof(BadJson) - 1;
            if (::sendto(fd, data, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) < 0)
                ++failed;
            else
                ++sent;
            if ((sent + failed) % 256 == 0 && elapsedS() >= limit) {
                late = true;
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    ::close(fd);
    std::printf("lab_flood: sent %ld datagrams (%ld failed) in %.1f s, %.0f per second\n", sent, failed, elapsed,
                double(sent) / elapsed);
    return 0;
}
