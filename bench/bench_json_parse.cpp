// Which JSON parser reads our datagrams fastest: every candidate turns the
// same text into the same QVariant tree (objects as QVariantHash) that the
// listener, discovery and the control API work on, so the figures include
// building the result, not just scanning the text.
//
// Candidates: QJsonDocument (what the host used before; leaks on duplicated
// keys), TarvJson::parse (RapidJSON's SAX reader, the host's parser now),
// nlohmann-json's SAX interface and simdjson's DOM, each from Debian.
// Rates are parses per second of the thread's CPU time, best of five rounds.

#include <time.h>

#include <cstdio>
#include <functional>
#include <vector>

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <nlohmann/json.hpp>
#include <simdjson.h>

#include <tarv>

namespace {

qint64 threadCpuNanoseconds()
{
    timespec now {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * Q_INT64_C(1000000000) + now.tv_nsec;
}

QVariant viaQt(const QByteArray& json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError)
        return QVariant();
    return document.isObject() ? TarvJson::toVariant(document.object()) : TarvJson::toVariant(document.array());
}

QVariant viaTarvJson(const QByteArray& json)
{
    TarvError error;
    return TarvJson::parse(json, error, nullptr);
}

// nlohmann's SAX events into the same tree, numbers as Qt reads them.
class NlohmannBuilder : public nlohmann::json_sax<nlohmann::json>
{
public:
    QVariant result;

    bool null() override { return add(QVariant::fromValue(nullptr)); }
    bool boolean(bool value) override { return add(value); }
    bool number_integer(number_integer_t value) override { return add(qlonglong(value)); }
    bool number_unsigned(number_unsigned_t value) override
    {
        return value <= quint64(std::numeric_limits<qint64>::max()) ? add(qlonglong(value)) : add(double(value));
    }
    bool number_float(number_float_t value, const string_t&) override
    {
        if (value >= -9223372036854775808.0 && value < 9223372036854775808.0 && value == double(qint64(value)))
            return add(qlonglong(value));
        return add(value);
    }
    bool string(string_t& value) override
    {
        return add(QString::fromUtf8(value.data(), int(value.size())));
    }
    bool binary(binary_t&) override { return false; }
    bool start_object(std::size_t) override { return open(true); }
    bool key(string_t& value) override
    {
        m_stack.back().key = QString::fromUtf8(value.data(), int(value.size()));
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(false); }
    bool end_array() override { return close(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

private:
    struct Frame
    {
        bool isObject;
        QVariantHash hash;
        QVariantList list;
        QString key;
    };
    bool add(QVariant value)
    {
        if (m_stack.empty())
            return false;
        Frame& top = m_stack.back();
        if (top.isObject)
            top.hash.insert(top.key, std::move(value));
        else
            top.list.append(std::move(value));
        return true;
    }
    bool open(bool isObject)
    {
        m_stack.push_back(Frame{isObject, {}, {}, {}});
        return true;
    }
    bool close()
    {
        Frame frame = std::move(m_stack.back());
        m_stack.pop_back();
        QVariant value = frame.isObject ? QVariant(frame.hash) : QVariant(frame.list);
        if (m_stack.empty()) {
            result = value;
            return true;
        }
        return add(value);
    }
    std::vector<Frame> m_stack;
};

QVariant viaNlohmann(const QByteArray& json)
{
    NlohmannBuilder builder;
    if (!nlohmann::json::sax_parse(json.constData(), json.constData() + json.size(), &builder))
        return QVariant();
    return builder.result;
}

QVariant fromSimdjson(simdjson::dom::element element)
{
    switch (element.type()) {
    case simdjson::dom::element_type::OBJECT: {
        QVariantHash hash;
        for (const auto field : simdjson::dom::object(element))
            hash.insert(QString::fromUtf8(field.key.data(), int(field.key.size())), fromSimdjson(field.value));
        return hash;
    }
    case simdjson::dom::element_type::ARRAY: {
        QVariantList list;
        for (const auto item : simdjson::dom::array(element))
            list.append(fromSimdjson(item));
        return list;
    }
    case simdjson::dom::element_type::STRING: {
        const std::string_view text = element.get_string().value();
        return QString::fromUtf8(text.data(), int(text.size()));
    }
    case simdjson::dom::element_type::INT64:
        return qlonglong(element.get_int64().value());
    case simdjson::dom::element_type::UINT64:
        return double(element.get_uint64().value());
    case simdjson::dom::element_type::DOUBLE:
        return element.get_double().value();
    case simdjson::dom::element_type::BOOL:
        return element.get_bool().value();
    case simdjson::dom::element_type::NULL_VALUE:
        return QVariant::fromValue(nullptr);
    }
    return QVariant();
}

QVariant viaSimdjson(const QByteArray& json)
{
    static simdjson::dom::parser parser;
    simdjson::dom::element root;
    // simdjson needs padding after the text; a copy with room is the honest
    // cost for a datagram that arrives without it.
    const simdjson::padded_string padded(json.constData(), std::size_t(json.size()));
    if (parser.parse(padded).get(root))
        return QVariant();
    return fromSimdjson(root);
}

struct Candidate
{
    const char* name;
    std::function<QVariant(const QByteArray&)> parse;
};

double bestRate(const Candidate& candidate, const QByteArray& json, int parses)
{
    double best = 0;
    for (int round = 0; round < 5; ++round) {
        const qint64 start = threadCpuNanoseconds();
        for (int i = 0; i < parses; ++i) {
            const QVariant value = candidate.parse(json);
            Q_UNUSED(value)
        }
        const double seconds = double(threadCpuNanoseconds() - start) / 1e9;
        best = std::max(best, parses / seconds);
    }
    return best;
}

QByteArray member(int groupSize)
{
    QStringList group;
    for (int i = 0; i < groupSize; ++i)
        group << QStringLiteral("5b7e21c0-8a8f-4f36-9d1e-%1").arg(i, 12, 10, QLatin1Char('0'));
    return TarvSystemMember()
        .setId(QStringLiteral("3f2c9a10-4b1d-4c8e-9f6a-2d5e7c8b9a01"))
        .setName(QStringLiteral("Living room"))
        .setHost(QStringLiteral("livingroom.local"))
        .setIpAddress(QStringLiteral("192.168.1.23"))
        .setTranscoder(false)
        .setPersistentGroupMembers(group)
        .setPersistentGroupTimestamp(Q_INT64_C(1763851234567))
        .toJson(false);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int parses = argc > 1 ? atoi(argv[1]) : 20000;

    const std::vector<Candidate> candidates = {
        {"QJsonDocument", viaQt},
        {"TarvJson (RapidJSON SAX)", viaTarvJson},
        {"nlohmann-json SAX", viaNlohmann},
        {"simdjson DOM", viaSimdjson},
    };
    const QByteArray add = member(2);
    const QByteArray announcement = QByteArray("{\"systemMember\":") + member(64) + '}';
    const std::vector<std::pair<const char*, QByteArray>> inputs = {
        {"add body", add},
        {"announcement, 64-id group", announcement},
        {"bad JSON", add.left(add.size() / 2)},
    };

    // Every candidate must build the same tree, or its rate means nothing.
    for (const auto& input : inputs) {
        const QVariant reference = viaTarvJson(input.second);
        for (const Candidate& candidate : candidates) {
            if (candidate.parse(input.second) != reference) {
                std::fprintf(stderr, "%s gives a different result for %s\n", candidate.name, input.first);
                return 1;
            }
        }
    }

    std::printf("JSON parse benchmark: %d parses a round, best of 5, parses per second of CPU time\n\n", parses);
    std::printf("| %-28s |", "parser");
    for (const auto& input : inputs)
        std::printf(" %s (%d B) |", input.first, int(input.second.size()));
    std::printf("\n|------------------------------|");
    for (size_t i = 0; i < inputs.size(); ++i)
        std::printf("----------------|");
    std::printf("\n");
    for (const Candidate& candidate : candidates) {
        std::printf("| %-28s |", candidate.name);
        for (const auto& input : inputs)
            std::printf(" %14.0f |", bestRate(candidate, input.second, parses));
        std::printf("\n");
    }
    return 0;
}
