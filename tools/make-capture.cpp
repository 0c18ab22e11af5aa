// SPDX-License-Identifier: Apache-2.0
// Writes a capture of TLS connections that were never on a network. A connection is a source of TCP segments; the program
// takes a few from each open connection in turn, so that they lie side by side in the file as those of a busy host do.
// The handshakes are real, and libssl protects every byte: the key log that comes with the capture opens all of it.
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TLSSession.h"
#include "harness/HTTP2Writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fmt/format.h>
#include <getopt.h>
#include <memory>
#include <optional>
#include <stdexcept>

namespace {

using namespace sealscope;
using Direction = TCPSegment::Direction;

constexpr const char* help = R"(examples:
  make-capture --out large.pcapng --shape large --size 1GB --keylog keys.txt
  make-capture --out short.pcapng --shape small --connections 50000 --secrets-inside
  make-capture --out million.pcap --shape small --connections 1000000 --payload 100
  make-capture --out bad-day.pcapng --shape mixed --size 50MB --disorder 0.02 --lost 0.001

usage: make-capture --out FILE [options]

  -o, --out FILE         the capture; a name that ends in .pcap gives the classic format, any other pcapng
  -s, --shape SHAPE      large: a few long transfers; small: many short connections, each a request and its response;
                         mixed: half the bytes of each; requests: one HTTP/2 connection with as many small requests and
                         replies as --connections says (default: small)
  -S, --size SIZE        about how large the file gets: 1GB, 500MB, 64KiB (default: 100MB; small: as large as it gets)
  -c, --connections N    short connections (default: 1000; mixed: until the size is reached)
  -2, --http2            long transfers go over HTTP/2
  -t, --transfers N      long transfers, side by side (default: 4)
  -n, --sessions N       different TLS sessions among the short connections; the others repeat one of these under other
                         endpoints (default: 64)
  -j, --concurrent N     short connections that are open at once (default: 16)
  -v, --version VERSION  1.0, 1.1, 1.2 or 1.3 (default: 1.3)
  -u, --suite NAME       cipher suite, by libssl's or the registry's name
  -k, --keylog FILE      where the secrets go, in the SSLKEYLOGFILE format
  -i, --secrets-inside   the secrets go into the capture, before the packets that they open
  -a, --secrets-after    the secrets go into the capture, behind all packets
  -p, --payload BYTES    body of a short connection's response (default: 3000)
  -q, --request BYTES    size of a short connection's request (default: 500)
  -r, --record BYTES     plaintext of a record at most, 512 to 16384 (default: 16384)
  -g, --segment BYTES    payload of a TCP segment at most (default: 1448)
  -6, --ipv6             IPv6 in place of IPv4
  -l, --vlan ID          a VLAN tag on every frame; several give several tags
  -L, --snaplen BYTES    bytes that are kept of a frame (default: all)
  -d, --disorder SHARE   part of the segments that come late, twice or overlapping, 0 to 1 (default: 0)
  -x, --lost SHARE       part of the segments that are not captured, 0 to 1 (default: 0)
  -e, --seed N           another seed gives other sessions and another disorder (default: 1)
  -h, --help
)";

struct Settings {
    std::string out;
    std::string keyLog;
    std::string shape = "small";
    std::optional<std::int64_t> size;
    std::optional<std::int64_t> connections;
    std::int64_t transfers = 4;
    std::int64_t sessions = 64;
    std::int64_t concurrent = 16;
    std::int64_t payload = 3'000;
    std::int64_t request = 500;
    std::int64_t segment = 1'448;
    std::int64_t snapLength = 0;
    double disorder = 0;
    double lost = 0;
    bool secretsInside = false;
    bool secretsAfter = false;
    IPVersion version = IPVersion::v4;
    bool isHTTP2 = false;
    TLSSessionOptions tls{.certificates = {{.authorities = 2}, {.key = CertificateKey::rsa2048, .authorities = 2}}, .tickets = 1};
    PacketPath path{.tcpOptions = hex("01 01 08 0a 00 00 00 01 00 00 00 01")};  // timestamps (RFC 7323 §3.2)
};

struct WrongUse : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A number of bytes such as "1GB" (10^9), "64KiB" (2^16) or "1500".
std::int64_t byteCount(const std::string& option, const std::string& text)
{
    struct Unit {
        const char* name;
        double factor;
    };
    static constexpr Unit units[] = {{"", 1},     {"B", 1},     {"kB", 1e3},   {"KB", 1e3},           {"MB", 1e6},
                                     {"GB", 1e9}, {"TB", 1e12}, {"KiB", 1024}, {"MiB", 1024. * 1024}, {"GiB", 1024. * 1024 * 1024}};
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    const auto unit = std::ranges::find_if(units, [&](const Unit& candidate) { return std::strcmp(candidate.name, end) == 0; });
    if (end == text.c_str() || number < 0 || unit == std::end(units)) throw WrongUse(option + ": no number of bytes: " + text);
    return static_cast<std::int64_t>(number * unit->factor);
}

std::int64_t count(const std::string& option, const std::string& text, std::int64_t least, std::int64_t most)
{
    char* end = nullptr;
    const long long number = std::strtoll(text.c_str(), &end, 10);
    if (end == text.c_str() || *end != 0 || number < least || number > most)
        throw WrongUse(fmt::format("{}: {} is no number from {} to {}", option, text, least, most));
    return number;
}

double share(const std::string& option, const std::string& text)
{
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != 0 || !(number >= 0 && number <= 1)) throw WrongUse(option + ": no share from 0 to 1: " + text);
    return number;
}

std::uint16_t version(const std::string& text)
{
    static constexpr const char* names[] = {"1.0", "1.1", "1.2", "1.3"};
    const auto name = std::ranges::find(names, text);
    if (name == std::end(names)) throw WrongUse("--version: no version of TLS: " + text);
    return static_cast<std::uint16_t>(0x0301 + (name - names));
}

std::optional<Settings> parse(int argc, char** argv)
{
    static constexpr option options[] = {
        {"out", 1, nullptr, 'o'},         {"shape", 1, nullptr, 's'},          {"size", 1, nullptr, 'S'},
        {"connections", 1, nullptr, 'c'}, {"transfers", 1, nullptr, 't'},      {"sessions", 1, nullptr, 'n'},
        {"concurrent", 1, nullptr, 'j'},  {"version", 1, nullptr, 'v'},        {"suite", 1, nullptr, 'u'},
        {"keylog", 1, nullptr, 'k'},      {"secrets-inside", 0, nullptr, 'i'}, {"secrets-after", 0, nullptr, 'a'},
        {"payload", 1, nullptr, 'p'},     {"request", 1, nullptr, 'q'},        {"record", 1, nullptr, 'r'},
        {"segment", 1, nullptr, 'g'},     {"ipv6", 0, nullptr, '6'},           {"http2", 0, nullptr, '2'}, {"vlan", 1, nullptr, 'l'},
        {"snaplen", 1, nullptr, 'L'},     {"disorder", 1, nullptr, 'd'},       {"lost", 1, nullptr, 'x'},
        {"seed", 1, nullptr, 'e'},        {"help", 0, nullptr, 'h'},           {}};
    constexpr std::int64_t many = 1'000'000'000;
    Settings settings;
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "o:s:S:c:t:n:j:v:u:k:iap:q:r:g:62l:L:d:x:e:h", options, nullptr)) != -1) {
        const std::string value = optarg ? optarg : "";
        switch (letter) {
        case 'o': settings.out = value; break;
        case 's': settings.shape = value; break;
        case 'S': settings.size = byteCount("--size", value); break;
        case 'c': settings.connections = count("--connections", value, 0, many); break;
        case 't': settings.transfers = count("--transfers", value, 1, 1'000); break;
        case 'n': settings.sessions = count("--sessions", value, 1, many); break;
        case 'j': settings.concurrent = count("--concurrent", value, 1, 10'000'000); break;
        case 'v': settings.tls.version = version(value); break;
        case 'u': settings.tls.suites = value; break;
        case 'k': settings.keyLog = value; break;
        case 'i': settings.secretsInside = true; break;
        case 'a': settings.secretsAfter = true; break;
        case 'p': settings.payload = byteCount("--payload", value); break;
        case 'q': settings.request = byteCount("--request", value); break;
        case 'r': settings.tls.maximumFragment = static_cast<int>(count("--record", value, 512, 16'384)); break;
        case 'g': settings.segment = count("--segment", value, 1, 65'000); break;
        case '6': settings.version = IPVersion::v6; break;
        case '2': settings.isHTTP2 = true; break;
        case 'l': settings.path.vlans.push_back(static_cast<std::uint16_t>(count("--vlan", value, 0, 4'095))); break;
        case 'L': settings.snapLength = count("--snaplen", value, 1, 262'144); break;
        case 'd': settings.disorder = share("--disorder", value); break;
        case 'x': settings.lost = share("--lost", value); break;
        case 'e': settings.tls.seed = static_cast<std::uint64_t>(count("--seed", value, 0, many)); break;
        case 'h': return std::nullopt;
        default: throw WrongUse("");
        }
    }
    if (optind < argc) throw WrongUse(fmt::format("what is \"{}\"?", argv[optind]));
    if (settings.out.empty()) throw WrongUse("--out FILE is missing");
    if (settings.shape != "large" && settings.shape != "small" && settings.shape != "mixed" && settings.shape != "requests")
        throw WrongUse("--shape: large, small, mixed or requests, not " + settings.shape);
    if (settings.out.ends_with(".pcap") && (settings.secretsInside || settings.secretsAfter))
        throw WrongUse("--out " + settings.out + ": only pcapng has room for secrets");
    return settings;
}

class OutputFile {
public:
    explicit OutputFile(const std::string& name) : name_(name), file_(std::fopen(name.c_str(), "wb"))
    {
        if (!file_) fail();
    }
    void write(DataView bytes)
    {
        if (std::fwrite(bytes.data(), 1, static_cast<std::size_t>(bytes.size()), file_.get()) != static_cast<std::size_t>(bytes.size()))
            fail();
    }
    void close()
    {
        if (std::fclose(file_.release()) != 0) fail();
    }

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    [[noreturn]] void fail() { throw std::runtime_error(name_ + ": " + std::strerror(errno)); }
    std::string name_;
    std::unique_ptr<std::FILE, Close> file_;
};

/// The capture being written, with its key log. Segments get their times here, in the order in which they are captured.
class CaptureOutput {
public:
    explicit CaptureOutput(const Settings& settings)
        : settings_(settings), file_(settings.out), pcap_(linkType(settings.path, settings.version), {.hasNanoseconds = true}),
          isPcapng_(!settings.out.ends_with(".pcap"))
    {
        pcapng_.interface({.linkType = linkType(settings.path, settings.version), .resolution = 9});
        if (!settings.keyLog.empty()) keyLog_.emplace(settings.keyLog);
    }

    void secrets(const std::string& lines)
    {
        if (keyLog_) keyLog_->write(DataView(lines));
        if (settings_.secretsAfter) secretsAfter_ += lines;
        if (!settings_.secretsInside) return;
        flush();  // earlier packets stay in front
        pcapng_.secrets(lines);
    }

    void segment(PlannedSegment segment)
    {
        constexpr std::int64_t cost = 66 + 32;  // headers, and the capture's own
        bytesTaken_ += segment.payload.size() + cost;
        pending_.push_back(std::move(segment));
        if (pending_.size() >= segmentsAtOnce) flush();
    }

    /// About how large the file gets with all segments up to here.
    std::int64_t bytesTaken() const { return bytesTaken_; }
    std::int64_t bytesWritten() const { return written_ + static_cast<std::int64_t>(buffer().size()); }
    std::int64_t packetsWritten() const { return packets_; }

    void finish()
    {
        flush();
        if (!secretsAfter_.empty()) pcapng_.secrets(secretsAfter_);
        write();
        file_.close();
        if (keyLog_) keyLog_->close();
    }

private:
    static constexpr std::size_t segmentsAtOnce = 2'048;
    static constexpr std::size_t bytesAtOnce = 1 << 20;
    static constexpr std::int64_t interval = 10'000;  // nanoseconds from packet to packet

    const std::vector<std::uint8_t>& buffer() const { return isPcapng_ ? pcapng_.bytes() : pcap_.bytes(); }

    void flush()
    {
        if (settings_.disorder > 0 || settings_.lost > 0)
            disturb(pending_, {.reordered = settings_.disorder,
                               .retransmitted = settings_.disorder,
                               .overlapping = settings_.disorder,
                               .lost = settings_.lost,
                               .seed = settings_.tls.seed + static_cast<std::uint64_t>(packets_)});
        for (PlannedSegment& segment : pending_) {
            segment.time = time_ += interval;
            frame_.clear();
            appendFrame(segment, settings_.path, frame_);
            DataView kept = frame_;
            if (settings_.snapLength > 0) kept = kept.sub(0, settings_.snapLength);
            // The frame is lent for the call, so that a packet costs no allocation.
            const CapturePacket packet{segment.time, Data(nullptr, kept), static_cast<std::int64_t>(frame_.size()), 0};
            if (isPcapng_)
                pcapng_.packet(packet);
            else
                pcap_.packet(packet);
            ++packets_;
            if (buffer().size() >= bytesAtOnce) write();
        }
        pending_.clear();
    }

    void write()
    {
        file_.write(buffer());
        written_ += static_cast<std::int64_t>(buffer().size());
        pcapng_.clear();
        pcap_.clear();
    }

    const Settings& settings_;
    OutputFile file_;
    std::optional<OutputFile> keyLog_;
    PcapngBuilder pcapng_;
    PcapBuilder pcap_;
    bool isPcapng_;
    std::vector<PlannedSegment> pending_;
    std::vector<std::uint8_t> frame_;
    std::string secretsAfter_;
    std::int64_t bytesTaken_ = 0;
    std::int64_t written_ = 0;
    std::int64_t packets_ = 0;
    std::int64_t time_ = 1'700'000'000'000'000'000;
};

TCPConversationOptions tcpOptions(const Settings& settings, std::int64_t number)
{
    // Clients count up through ports and then addresses, so that no connection has the endpoints of another.
    constexpr std::int64_t portsAClient = 28'000;
    const std::int64_t host = number / portsAClient;
    const auto port = static_cast<std::uint16_t>(32'768 + number % portsAClient);
    TCPConversationOptions options{.client = endpoint(settings.version == IPVersion::v6 ? "2001:db8::1:0" : "10.0.0.0", port),
                                   .server = settings.version == IPVersion::v6 ? endpoint("2001:db8::2", 443) : endpoint("192.0.2.2", 443),
                                   .clientISN = static_cast<std::uint32_t>(number * 2'654'435'761),
                                   .serverISN = static_cast<std::uint32_t>(number * 2'246'822'519 + 7),
                                   .segmentSize = settings.segment,
                                   .segmentsPerAcknowledgment = 8};
    std::uint8_t* last = options.client.address.data() + (settings.version == IPVersion::v6 ? 16 : 4);
    last[-2] = static_cast<std::uint8_t>((host + 1) >> 8);
    last[-1] = static_cast<std::uint8_t>(host + 1);
    return options;
}

/// Where segments come from.
class Connection {
public:
    virtual ~Connection() = default;
    /// Hands a few segments out; false when there are no more.
    virtual bool take(CaptureOutput& output) = 0;
};

/// A download over one connection, protected while it is written.
class LongTransfer final : public Connection {
public:
    LongTransfer(std::shared_ptr<TLSContexts> contexts, const Settings& settings, std::int64_t number, std::int64_t bytes,
                 CaptureOutput& output)
        : tls_(std::move(contexts), settings.tls.seed + 1'000'000 + static_cast<std::uint64_t>(number)), tcp_(tcpOptions(settings, number)),
          left_(bytes), segment_(settings.segment), body_(patternBytes(bytesAtOnce, settings.tls.seed + static_cast<std::uint64_t>(number)))
    {
        if (!tls_.handshake()) throw std::runtime_error("handshake: " + tls_.session().failure);
        const std::string path = fmt::format("/transfer/{}", number), length = std::to_string(bytes);
        if (settings.isHTTP2) {
            HTTP2Writer client, server;
            tls_.perform(clientSends(HTTP2Writer::preface() + client.headers(1, HTTP2Writer::get(path), HTTP2Writer::endStream)));
            tls_.perform(serverSends(server.headers(
                1, {{":status", "200"}, {"content-type", "application/octet-stream"}, {"content-length", length}})));
            frames_ = dataFrames(body_);
        } else {
            tls_.perform(clientSends("GET " + path + " HTTP/1.1\r\nHost: example.org\r\nAccept: */*\r\n\r\n"));
            tls_.perform(
                serverSends("HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " + length + "\r\n\r\n"));
        }
        TLSSession session = tls_.session();
        output.secrets(session.keyLog);
        tcp_.open();
        tcp_.send(session.flights);
    }

    bool take(CaptureOutput& output) override
    {
        if (isOver_) return false;
        const std::int64_t now = std::min(left_, bytesAtOnce);
        left_ -= now;
        if (now > 0) {
            const bool isWhole = now == body_.size();
            if (frames_.empty())
                tls_.seal(Direction::serverToClient, body_.view().sub(0, now), wire_);
            else
                tls_.seal(Direction::serverToClient, DataView(isWhole ? frames_ : dataFrames(body_.sub(0, now))), wire_);
        } else {
            if (!frames_.empty()) tls_.seal(Direction::serverToClient, DataView(HTTP2Writer::data(1, {}, HTTP2Writer::endStream)), wire_);
            tls_.sealClose(Direction::serverToClient, wire_);
            isOver_ = true;
        }
        // What does not fill a segment waits for more, as in a sender that is never idle.
        const auto whole =
            isOver_ ? static_cast<std::int64_t>(wire_.size()) : static_cast<std::int64_t>(wire_.size()) / segment_ * segment_;
        const Data bytes{DataView(wire_).sub(0, whole)};
        wire_.erase(wire_.begin(), wire_.begin() + whole);
        tcp_.send(Direction::serverToClient, bytes);
        if (isOver_) tcp_.close();
        for (PlannedSegment& segment : tcp_.segments) output.segment(std::move(segment));
        tcp_.segments.clear();
        return true;
    }

private:
    static std::string dataFrames(const Data& bytes)
    {
        constexpr std::int64_t frameSize = 16'384;
        std::string frames;
        for (std::int64_t offset = 0; offset < bytes.size(); offset += frameSize)
            frames += HTTP2Writer::data(1, bytes.sub(offset, frameSize).view().text());
        return frames;
    }

    static constexpr std::int64_t bytesAtOnce = 64 * 1024;
    TLSConversation tls_;
    TCPConversation tcp_;
    std::int64_t left_;
    std::int64_t segment_;
    Data body_;
    std::string frames_;  ///< of HTTP/2, that carry it
    std::vector<std::uint8_t> wire_;
    bool isOver_ = false;
};

/// Small requests over one HTTP/2 connection, one after another, each with a reply.
class ManyRequests final : public Connection {
public:
    ManyRequests(const std::shared_ptr<TLSContexts>& contexts, const Settings& settings, std::int64_t requests, CaptureOutput& output)
        : tls_(contexts, settings.tls.seed), tcp_(tcpOptions(settings, 0)), requests_(requests)
    {
        if (!tls_.handshake()) throw std::runtime_error("handshake: " + tls_.session().failure);
        tls_.perform(clientSends(HTTP2Writer::preface()));
        TLSSession session = tls_.session();
        output.secrets(session.keyLog);
        tcp_.open();
        tcp_.send(session.flights);
    }

    bool take(CaptureOutput& output) override
    {
        if (made_ == requests_) return false;
        const auto stream = static_cast<std::uint32_t>(2 * made_ + 1);
        HTTP2Writer::Fields fields = HTTP2Writer::get(fmt::format("/items/{}", made_));
        fields.insert(fields.end(), {{"user-agent", "client/1.0"}, {"accept", "*/*"}});
        send(Direction::clientToServer, client_.headers(stream, fields, HTTP2Writer::endStream));
        const std::string body = fmt::format("{{\"number\": {}}}", made_);
        const std::string head = server_.headers(stream, {{":status", "200"},
                                                          {"server", "server/1.0"},
                                                          {"content-type", "application/json"},
                                                          {"content-length", std::to_string(body.size())}});
        send(Direction::serverToClient, head + HTTP2Writer::data(stream, body, HTTP2Writer::endStream));
        if (++made_ == requests_) tcp_.close();
        for (PlannedSegment& segment : tcp_.segments) output.segment(std::move(segment));
        tcp_.segments.clear();
        return true;
    }

private:
    void send(Direction from, const std::string& text)
    {
        std::vector<std::uint8_t> wire;
        tls_.seal(from, DataView(text), wire);
        tcp_.send(from, Data(std::move(wire)));
    }

    TLSConversation tls_;
    TCPConversation tcp_;
    HTTP2Writer client_, server_;
    std::int64_t requests_;
    std::int64_t made_ = 0;
};

/// The sessions of the short connections: each is made when it is first asked for, and kept when it is asked for again.
class SessionPool {
public:
    SessionPool(const Settings& settings, std::int64_t connections)
        : settings_(settings), contexts_(makeTLSContexts(settings.tls)), isKept_(settings.sessions < connections)
    {}

    const std::vector<TLSFlight>& flights(std::int64_t number, CaptureOutput& output)
    {
        const std::int64_t which = number % settings_.sessions;
        if (isKept_ && which < static_cast<std::int64_t>(kept_.size())) return kept_[static_cast<std::size_t>(which)];
        TLSSession session = make(which);
        output.secrets(session.keyLog);
        if (!isKept_) kept_.clear();
        return kept_.emplace_back(std::move(session.flights));
    }

private:
    TLSSession make(std::int64_t which)
    {
        std::string request = fmt::format("GET /item/{} HTTP/1.1\r\nHost: example.org\r\nUser-Agent: client/1.0\r\nCookie: ", which);
        constexpr std::string_view end = "\r\n\r\n";
        request.append(
            static_cast<std::size_t>(std::max<std::int64_t>(settings_.request - static_cast<std::int64_t>(request.size() + end.size()), 0)),
            'c');
        request += end;
        std::string response = fmt::format("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: {}\r\n\r\n", settings_.payload);
        response.append(static_cast<std::size_t>(settings_.payload), static_cast<char>('a' + which % 26));

        TLSConversation conversation(contexts_, settings_.tls.seed + static_cast<std::uint64_t>(which));
        if (!conversation.handshake()) throw std::runtime_error("handshake: " + conversation.session().failure);
        for (const TLSStep& step :
             {clientSends(request), serverSends(response), clientDoes(TLSStep::Action::close), serverDoes(TLSStep::Action::close)})
            conversation.perform(step);
        return conversation.session();
    }

    const Settings& settings_;
    std::shared_ptr<TLSContexts> contexts_;
    bool isKept_;
    std::deque<std::vector<TLSFlight>> kept_;
};

class ShortConnection final : public Connection {
public:
    ShortConnection(SessionPool& pool, const Settings& settings, std::int64_t number, CaptureOutput& output)
        : segments_(tcpSegments(pool.flights(number, output), tcpOptions(settings, number)))
    {}

    bool take(CaptureOutput& output) override
    {
        constexpr std::size_t segmentsATurn = 4;
        const std::size_t end = std::min(next_ + segmentsATurn, segments_.size());
        for (; next_ < end; ++next_) output.segment(std::move(segments_[next_]));
        return next_ < segments_.size();
    }

private:
    std::vector<PlannedSegment> segments_;
    std::size_t next_ = 0;
};

void run(const Settings& settings)
{
    CaptureOutput output(settings);
    if (settings.shape == "requests") {
        ManyRequests requests(makeTLSContexts(settings.tls), settings, settings.connections.value_or(1'000), output);
        while (requests.take(output)) {}
        output.finish();
        fmt::print("{}: {} packets, {} bytes, 1 connection\n", settings.out, output.packetsWritten(), output.bytesWritten());
        return;
    }
    const bool hasLong = settings.shape != "small";
    const bool hasShort = settings.shape != "large";
    constexpr std::int64_t usualSize = 100'000'000;
    constexpr std::int64_t unlimited = INT64_MAX;
    const std::int64_t size = settings.size.value_or(hasLong ? usualSize : unlimited);
    const std::int64_t connections = settings.connections.value_or(hasLong || settings.size ? unlimited : 1'000);

    std::vector<std::unique_ptr<Connection>> transfers;
    if (hasLong) {
        // A segment costs its headers, the capture's own and its part of an acknowledgment.
        constexpr std::int64_t segmentCost = 66 + 32 + 13;
        const std::int64_t wire = (hasShort ? size / 2 : size) / settings.transfers;
        const std::int64_t bytes = wire * settings.segment / (settings.segment + segmentCost);
        const auto contexts = makeTLSContexts(settings.tls);
        for (std::int64_t number = 0; number < settings.transfers; ++number)
            transfers.push_back(std::make_unique<LongTransfer>(contexts, settings, number, bytes, output));
    }

    std::optional<SessionPool> pool;
    if (hasShort) pool.emplace(settings, connections);
    std::vector<std::unique_ptr<Connection>> open;
    std::int64_t made = 0;
    /// Returns how many bytes came of it.
    const auto takeTurns = [&](std::vector<std::unique_ptr<Connection>>& group) {
        const std::int64_t before = output.bytesTaken();
        std::erase_if(group, [&](const auto& connection) { return !connection->take(output); });
        return output.bytesTaken() - before;
    };
    std::int64_t lead = 0;  // bytes that the transfers are ahead of the short connections
    for (;;) {
        while (hasShort && made < connections && output.bytesTaken() < size &&
               static_cast<std::int64_t>(open.size()) < settings.concurrent) {
            const std::int64_t number = (hasLong ? settings.transfers : 0) + made++;
            open.push_back(std::make_unique<ShortConnection>(*pool, settings, number, output));
        }
        if (open.empty() && transfers.empty()) break;
        lead -= takeTurns(open);
        if (open.empty() || lead <= 0) lead += takeTurns(transfers);
    }
    output.finish();
    fmt::print("{}: {} packets, {} bytes, {} connections\n", settings.out, output.packetsWritten(), output.bytesWritten(),
               made + (hasLong ? settings.transfers : 0));
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        const auto settings = parse(argc, argv);
        if (!settings) {
            fmt::print("{}", help);
            return 0;
        }
        run(*settings);
        return 0;
    } catch (const WrongUse& error) {
        if (*error.what() != 0) fmt::print(stderr, "make-capture: {}\n", error.what());
        fmt::print(stderr, "make-capture: --help shows how it is used\n");
        return 2;
    } catch (const std::exception& error) {
        fmt::print(stderr, "make-capture: {}\n", error.what());
        return 1;
    }
}
