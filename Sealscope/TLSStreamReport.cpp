// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamReport.h"

#include "Sealscope/TLSCipherSuiteRegistry.h"
#include "Sealscope/TLSDirectionWalk.h"
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSStreamDecryption.h"
#include "Sealscope/TLSWalk.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Hello = TLSDecryptionReport::Hello;
using Stop = TLSDirectionReport::Stop;

constexpr std::uint16_t earlyDataExtension = 42;  // RFC 8446 §4.2.10

std::uint8_t type(TLSContentType contentType) { return std::to_underlying(contentType); }

/// Whether some byte of a range was carried by no packet. Lost bytes stand as zeros, so only zeros need to be looked up.
bool hasLostBytes(const TCPStream& stream, Direction direction, ByteRange range)
{
    std::vector<std::uint8_t> gathered;
    const DataView bytes = stream.data(direction).gather(range.lower, range.size(), gathered);
    for (std::int64_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != 0) continue;
        if (stream.locate({range.lower + i, range.lower + i + 1}, direction).packetIds.empty()) return true;
    }
    return false;
}

template <class Info> struct HelloSearch {
    Hello state = Hello::missing;
    std::optional<Info> info;
};

/// The first hello of a direction, or how the first that cannot be read is cut.
template <class Info, class Parse>
HelloSearch<Info> searchHello(const TCPStream& stream, Direction direction, TLSHandshakeType helloType, Parse parse)
{
    HelloSearch<Info> search;
    const StreamData& data = stream.data(direction);
    std::vector<std::uint8_t> gathered;
    bool isClear = true;  // what follows may be encrypted, and a message header by chance only
    forEachRecord(data, [&](const TLSRecord& record) {
        if (record.contentType != type(TLSContentType::handshake)) isClear = false;
        if (record.contentType != type(TLSContentType::handshake)) return true;
        const DataView body = data.gather(record.bodyOffset, record.declaredLength, gathered);
        forEachHandshakeMessage(body, record.bodyOffset, [&](const TLSHandshakeMessage& message) {
            if (message.handshakeType != std::to_underlying(helloType)) return true;
            if (!record.isTruncated && !message.isTruncated)
                search.info = parse(body.sub(message.bodyOffset - record.bodyOffset, message.length), message.bodyOffset);
            // Zeros in place of lost bytes may read as a hello, but what is looked for is not in them.
            const ByteRange random{message.bodyOffset + 2, message.bodyOffset + 34};
            if (search.info)
                search.state = hasLostBytes(stream, direction, random) ? Hello::cutByData : Hello::found;
            else if (isClear && search.state == Hello::missing) {
                if (record.isTruncated || hasLostBytes(stream, direction, {record.recordOffset, record.endOffset()}))
                    search.state = Hello::cutByData;
                else if (message.isTruncated)
                    search.state = Hello::cutByRecords;
            }
            return !search.info;
        });
        return !search.info;
    });
    return search;
}

/// RFC 8446 §6, RFC 5246 §7.2 and what these registered before.
std::string alertName(std::uint8_t description)
{
    switch (description) {
    case 0: return "close_notify";
    case 10: return "unexpected_message";
    case 20: return "bad_record_mac";
    case 21: return "decryption_failed";
    case 22: return "record_overflow";
    case 30: return "decompression_failure";
    case 40: return "handshake_failure";
    case 41: return "no_certificate";
    case 42: return "bad_certificate";
    case 43: return "unsupported_certificate";
    case 44: return "certificate_revoked";
    case 45: return "certificate_expired";
    case 46: return "certificate_unknown";
    case 47: return "illegal_parameter";
    case 48: return "unknown_ca";
    case 49: return "access_denied";
    case 50: return "decode_error";
    case 51: return "decrypt_error";
    case 60: return "export_restriction";
    case 70: return "protocol_version";
    case 71: return "insufficient_security";
    case 80: return "internal_error";
    case 86: return "inappropriate_fallback";
    case 90: return "user_canceled";
    case 100: return "no_renegotiation";
    case 109: return "missing_extension";
    case 110: return "unsupported_extension";
    case 111: return "certificate_unobtainable";
    case 112: return "unrecognized_name";
    case 113: return "bad_certificate_status_response";
    case 114: return "bad_certificate_hash_value";
    case 115: return "unknown_psk_identity";
    case 116: return "certificate_required";
    case 120: return "no_application_protocol";
    default: return std::to_string(description);
    }
}

/// The first alert of a direction before anything is encrypted.
std::optional<TLSAlertReport> clearAlert(const StreamData& data)
{
    std::optional<TLSAlertReport> alert;
    StreamReader bytes(data);
    forEachRecord(data, [&](const TLSRecord& record) {
        if (record.isTruncated) return false;
        if (record.contentType == type(TLSContentType::alert) && record.declaredLength == 2) {
            const std::uint8_t description = bytes.u8(record.bodyOffset + 1);
            alert = TLSAlertReport{bytes.u8(record.bodyOffset), description, alertName(description)};
            return false;
        }
        return record.contentType == type(TLSContentType::handshake);
    });
    return alert;
}

/// Reports on the directions of one stream whose version and suite can be opened.
class DirectionReporter {
public:
    DirectionReporter(const TCPStream& stream, const TLSStreamDecryption::Context& context, const TLSKeyLog& keyLog, bool offersEarlyData)
        : stream_(stream), context_(context), keyLog_(keyLog), offersEarlyData_(offersEarlyData)
    {}

    TLSDirectionReport report(Direction direction) const
    {
        TLSDirectionReport report;
        const StreamData& data = stream_.data(direction);
        const auto secret = keyLog_.secrets.find(secretLabels(context_.isTLS13, direction).application, context_.clientRandom);
        auto walk = TLSDirectionWalk::begin(data, direction, context_, keyLog_);
        if (!walk) {
            report.stop = secret ? Stop::badSecret : Stop::noSecret;
            report.protectedRecords = framingOf(data, context_.isTLS13).protectedRecords;
            return report;
        }
        const Refusal refusal = open(*walk, report);
        const TLSFraming& framing = walk->passToEnd();
        report.protectedRecords = framing.protectedRecords;
        settleStop(report, framing, refusal, direction, secret->size());
        if (report.plaintextBytes == 0) report.alert = clearAlert(data);
        return report;
    }

private:
    /// The first of the records at the end of a direction that do not open.
    struct Refusal {
        std::optional<TLSRecord> record;
        bool followsKeyUpdate = false;
        bool followsRenegotiation = false;
    };

    static Refusal open(TLSDirectionWalk& walk, TLSDirectionReport& report)
    {
        Refusal refusal;
        std::int64_t refused = 0;
        bool isAfterKeyUpdate = false;
        for (auto step = walk.next(); step != TLSDirectionWalk::Step::end; step = walk.next()) {
            if (step == TLSDirectionWalk::Step::refused) {
                if (++refused == 1) refusal = {walk.record(), isAfterKeyUpdate, walk.changeCipherSpecs() > 1};
                continue;
            }
            ++report.openedRecords;
            report.skippedRecords += std::exchange(refused, 0);
            refusal = {};
            const DataView plaintext = walk.plaintext();
            if (walk.innerType() == type(TLSContentType::applicationData)) report.plaintextBytes += plaintext.size();
            // A KeyUpdate is the last message under its key: type 24, and one byte of content (RFC 8446 §4.6.3).
            const DataView last = plaintext.from(plaintext.size() - 5);
            isAfterKeyUpdate = walk.innerType() == type(TLSContentType::handshake) && last.size() == 5 && last.u32(0) == 0x18000001;
        }
        return refusal;
    }

    void settleStop(TLSDirectionReport& report, const TLSFraming& framing, const Refusal& refusal, Direction direction,
                    std::int64_t secretLength) const
    {
        const auto stopAt = [&](Stop stop, std::int64_t offset) {
            report.stop = stop;
            report.stopOffset = offset;
        };
        if (framing.foreign && (!refusal.record || framing.foreign->recordOffset < refusal.record->recordOffset)) {
            const std::int64_t offset = framing.foreign->recordOffset;
            const bool isLost = hasLostBytes(stream_, direction, {offset, offset + TLSRecord::headerLength});
            return stopAt(isLost ? Stop::lostBytes : Stop::noRecord, offset);
        }
        if (refusal.record) return stopAt(reason(report, refusal, direction, secretLength), refusal.record->recordOffset);
        if (framing.cutFrom) return stopAt(Stop::cutRecord, *framing.cutFrom);
        stopAt(report.protectedRecords > 0 ? Stop::endOfData : Stop::nothingProtected, stream_.data(direction).size());
    }

    Stop reason(const TLSDirectionReport& report, const Refusal& refusal, Direction direction, std::int64_t secretLength) const
    {
        const TLSRecord& record = *refusal.record;
        if (hasLostBytes(stream_, direction, {record.recordOffset, record.endOffset()})) return Stop::lostBytes;
        if (refusal.followsRenegotiation) return Stop::renegotiation;
        if (refusal.followsKeyUpdate) return Stop::keyUpdate;
        if (report.openedRecords > 0 || !context_.isTLS13) return Stop::doesNotOpen;

        const auto suite = TLS13RecordDecryptor::suiteParameters(context_.cipherSuite);
        const bool hasHandshakeSecret = keyLog_.secrets.find(secretLabels(true, direction).handshake, context_.clientRandom).has_value();
        if (direction == Direction::clientToServer && isEarlyData(record, hasHandshakeSecret)) return Stop::earlyData;
        if (suite && secretLength != digestSize(suite->hash)) return Stop::badSecret;
        return hasHandshakeSecret ? Stop::doesNotOpen : Stop::noHandshakeSecret;
    }

    /// Whether the client's first protected record is early data: its own secret says so for certain, and without that an
    /// offer of it, where the handshake keys are there and do not open the record.
    bool isEarlyData(const TLSRecord& record, bool hasHandshakeSecret) const
    {
        if (!offersEarlyData_) return false;
        const auto secret = keyLog_.secrets.find("CLIENT_EARLY_TRAFFIC_SECRET", context_.clientRandom);
        const auto suite = TLS13RecordDecryptor::suiteParameters(context_.cipherSuite);
        if (!secret || !suite) return hasHandshakeSecret;
        auto walk = TLS13RecordDecryptor::Walk::begin(std::nullopt, *secret, *suite);
        const Data whole = stream_.clientToServerData.slice(record.recordOffset, TLSRecord::headerLength + record.declaredLength);
        const DataView bytes = whole;
        std::vector<std::uint8_t> plaintext(static_cast<std::size_t>(whole.size()));
        return walk && walk->open(bytes.sub(0, TLSRecord::headerLength), bytes.from(TLSRecord::headerLength), plaintext.data());
    }

    const TCPStream& stream_;
    const TLSStreamDecryption::Context& context_;
    const TLSKeyLog& keyLog_;
    bool offersEarlyData_;
};

bool isSupportedSuite(const TLSStreamDecryption::Context& context)
{
    return context.isTLS13 ? TLS13RecordDecryptor::suiteParameters(context.cipherSuite).has_value()
                           : TLS12RecordDecryptor::suiteParameters(context.cipherSuite).has_value();
}

/// The labels that a version reads.
std::vector<std::string_view> labelsOf(bool isTLS13)
{
    const TLSSecretLabels client = secretLabels(isTLS13, Direction::clientToServer);
    const TLSSecretLabels server = secretLabels(isTLS13, Direction::serverToClient);
    if (!isTLS13) return {client.application};
    return {client.handshake, server.handshake, client.application, server.application};
}

}  // namespace

TLSDecryptionReport TLSStreamReport::report(const TCPStream& stream, const TLSKeyLog& keyLog, bool walk)
{
    TLSDecryptionReport report;
    auto clientHello =
        searchHello<ClientHelloInfo>(stream, Direction::clientToServer, TLSHandshakeType::clientHello, TLSDissector::parseClientHello);
    const auto serverHello =
        searchHello<ServerHelloInfo>(stream, Direction::serverToClient, TLSHandshakeType::serverHello, TLSDissector::parseServerHello);
    report.clientHello = clientHello.state;
    report.serverHello = serverHello.state;
    if (const auto& hello = serverHello.info) {
        report.version = hello->supportedVersion.value_or(hello->legacyVersion);
        report.versionName = versionName(*report.version);
        report.cipherSuite = hello->cipherSuite;
        const auto registered = registeredCipherSuiteName(hello->cipherSuite);
        report.cipherSuiteName = registered ? std::string(*registered) : cipherSuiteName(hello->cipherSuite);
    }
    if (clientHello.info) {
        report.clientRandom = clientHello.info->clientRandom;
        report.serverName = std::move(clientHello.info->serverName);
    }
    const auto failed = [&](TLSDecryptionFailure failure) { report.outcome = TLSDecryptionOutcome::notDecrypted(failure); };
    if (!clientHello.info || !serverHello.info) {
        failed(TLSDecryptionFailure::noHandshake);
        report.client.alert = clearAlert(stream.clientToServerData);
        report.server.alert = clearAlert(stream.serverToClientData);
        return report;
    }

    const auto context = TLSStreamDecryption::context(*report.clientRandom, *serverHello.info);
    const auto secretLength = [&](std::string_view label) {
        const auto secret = keyLog.secrets.find(label, *report.clientRandom);
        return secret ? std::optional(secret->size()) : std::nullopt;
    };
    const auto read = context ? labelsOf(context->isTLS13) : std::vector<std::string_view>{};
    for (const std::string_view label : read) report.secrets.push_back({std::string(label), secretLength(label)});
    for (const std::string_view label : TLSKeyLog::knownLabels)
        if (std::ranges::find(read, label) == read.end() && secretLength(label)) report.otherLabels.emplace_back(label);
    if (!context) {
        failed(TLSDecryptionFailure::unsupportedVersion);
        return report;
    }

    report.isSupportedVersion = true;
    report.isSupportedSuite = isSupportedSuite(*context);
    if (!TLSStreamDecryption::hasKeyMaterial(*context, keyLog))
        failed(TLSDecryptionFailure::noKeyMaterial);
    else if (!report.isSupportedSuite)
        failed(TLSDecryptionFailure::keyMismatch);
    if (!walk || !report.isSupportedSuite) return report;

    const bool offersEarlyData = std::ranges::any_of(clientHello.info->extensions,
                                                     [](const TLSExtension& extension) { return extension.extType == earlyDataExtension; });
    const DirectionReporter reporter(stream, *context, keyLog, offersEarlyData);
    report.client = reporter.report(Direction::clientToServer);
    report.server = reporter.report(Direction::serverToClient);
    if (report.client.plaintextBytes > 0 || report.server.plaintextBytes > 0)
        report.outcome = TLSDecryptionOutcome::decrypted();
    else if (!report.outcome)
        failed(TLSDecryptionFailure::keyMismatch);
    return report;
}

}  // namespace sealscope
