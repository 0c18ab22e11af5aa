// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELCommonTools/KeyLogSources.h"
#include "host/VELModels/StreamContext.h"
#include "host/VELModels/TCPStream.h"
#include "platform/SecretMemory.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// Why a stream does not decrypt.
enum class TLSDecryptionFailure : std::uint8_t { noHandshake, unsupportedVersion, noKeyMaterial, keyMismatch };

/// A probe's answer: decrypted, or why not.
struct TLSDecryptionOutcome {
    std::optional<TLSDecryptionFailure> failure;
    static constexpr TLSDecryptionOutcome decrypted() { return {}; }
    static constexpr TLSDecryptionOutcome notDecrypted(TLSDecryptionFailure failure) { return {failure}; }
    bool isDecrypted() const { return !failure; }
    bool operator==(const TLSDecryptionOutcome&) const = default;
};

/// An alert that a side sent in the clear (RFC 8446 §6).
struct TLSAlertReport {
    std::uint8_t level = 0;
    std::uint8_t description = 0;
    std::string name;  ///< as registered, "handshake_failure"; the number where it is not
    bool operator==(const TLSAlertReport&) const = default;
};

/// A stretch of one direction that a probe stepped over to go on behind it.
struct PlaintextGap {
    ByteRange range;                 ///< of the direction's data: whole records, as far as anybody can tell
    std::int64_t records = 0;        ///< that stood there; exact when what follows opened under the same key
    std::int64_t contentLength = 0;  ///< bytes of application data that these had; no more than so many where it is not exact
    bool isExact = false;            ///< of the content's length
    bool isLost = false;             ///< the capture lacks some of it; false: it is all there and does not authenticate
    bool operator==(const PlaintextGap&) const = default;
};

/// How far one direction of a stream opened, and what stands where it stopped.
struct TLSDirectionReport {
    enum class Stop : std::uint8_t {
        endOfData,          ///< every record opened
        nothingProtected,   ///< the direction holds no protected record
        noSecret,           ///< the key log lacks the direction's secret
        noHandshakeSecret,  ///< application secret there, handshake secret missing, and the first record does not open
        badSecret,          ///< a secret that no such connection can have (its length)
        lostBytes,          ///< the record at `stopOffset` overlaps bytes that the capture lost
        cutRecord,          ///< the data end inside the record at `stopOffset`
        noRecord,           ///< what stands at `stopOffset` is no TLS record
        earlyData,          ///< the record at `stopOffset` is early data (0-RTT), whose secret is not used
        keyUpdate,          ///< the record before `stopOffset` was a key update
        renegotiation,      ///< the keys of the record at `stopOffset` come from a second, encrypted handshake (TLS 1.2)
        doesNotOpen,        ///< the record at `stopOffset` does not authenticate
        notAttempted,       ///< not asked for, or version, suite or handshake stand in the way of the whole stream
    };
    Stop stop = Stop::notAttempted;
    std::int64_t stopOffset = 0;        ///< of the record's header in the direction's data
    std::int64_t protectedRecords = 0;  ///< records under encryption that can be opened: application data on the outside
    std::int64_t openedRecords = 0;
    std::int64_t skippedRecords = 0;      ///< did not open, while later ones did
    std::int64_t plaintextBytes = 0;      ///< of application data
    std::vector<PlaintextGap> gaps;       ///< in the order of the data, by a probe that goes on behind them; the last may end them
    std::optional<TLSAlertReport> alert;  ///< the first that the direction holds in the clear; looked for where no data opens
    bool operator==(const TLSDirectionReport&) const = default;
};

/// The application data of one protected record. The bytes are lent until the reader moves on.
struct PlaintextRecord {
    DataView plaintext;
    ByteRange body;                   ///< of the record's body in the captured direction's data
    std::optional<PlaintextGap> gap;  ///< between it and the application data before it
};

/// Opens one direction of a stream, a record at a time and without keeping any: a stream larger than memory can be read.
/// Used by one thread at a time; keeps what it needs of the stream.
class PlaintextReader {
public:
    /// A record's body has no more bytes (RFC 8446 §5.1: 16 bits hold its length).
    static constexpr std::int64_t largestRecord = 65'535;

    virtual ~PlaintextReader() = default;
    /// The next record whose plaintext is application data and not empty; nothing after the last.
    std::optional<PlaintextRecord> next() { return next({}); }
    /// The same, opened into `room`, which has place for `largestRecord` bytes, and stays there; a buffer of the reader's own
    /// when it is empty.
    virtual std::optional<PlaintextRecord> next(std::span<std::uint8_t> room) = 0;
    /// The stream that it was made for has grown, with the same offsets: what `next` gives from now on may lie in the new bytes. Those
    /// in front of the last record that it gave may be gone. False for a reader that ends with the data it was made for.
    virtual bool goOn(const TCPStream&) { return false; }
    /// How far the direction opened; asked after the last record. Nothing when the reader does not know.
    virtual std::optional<TLSDirectionReport> report() { return std::nullopt; }
    /// Whether a record that does not open stands in front of the one that `next` gave, without being told as a gap.
    virtual bool hasPassedOver() const { return false; }
};

/// What the private keys at hand are to a connection.
struct TLSPrivateKeyReport {
    enum class Use : std::uint8_t {
        fits,              ///< one belongs to the server's certificate
        otherCertificate,  ///< none does
        otherKeyExchange,  ///< nothing is encrypted to the certificate: no private key helps
        noKeyExchange,     ///< the capture has none, since a session was resumed, or since it was lost
        notTried,          ///< the keys have opened as many others as they may
    };
    Use use = Use::fits;
    std::string certificate;  ///< the common name in the server's certificate; empty without one
    bool operator==(const TLSPrivateKeyReport&) const = default;
};

/// What was done in vain about a connection without a Client Hello, which nothing tells the secrets of: one client random's after another
/// were tried.
struct TLSSecretSearchReport {
    std::int64_t candidates = 0;  ///< client randoms whose secrets at hand could be the connection's
    std::int64_t tried = 0;       ///< of them; fewer where there are too many, or where earlier trials took the time for these
    bool operator==(const TLSSecretSearchReport&) const = default;
};

/// A key log label, and the length of its secret where a key log has one for the connection.
struct TLSSecretReport {
    std::string label;
    std::optional<std::int64_t> secretLength;
    bool operator==(const TLSSecretReport&) const = default;
};

/// What a probe knows of a stream, as facts; sentences are the application's. No secret is in it.
struct TLSDecryptionReport {
    /// What `probe` answers, where the report found it out by the way: after a walk always.
    std::optional<TLSDecryptionOutcome> outcome;

    enum class Hello : std::uint8_t {
        found,
        missing,       ///< the direction's data hold none
        cutByRecords,  ///< one begins, and continues in a further record
        cutByData,     ///< one begins, and the data end, or were lost, inside it
    };
    Hello clientHello = Hello::missing;
    Hello serverHello = Hello::missing;
    std::optional<Data> clientRandom;
    std::optional<std::string> serverName;
    std::optional<std::uint16_t> version;  ///< negotiated
    std::string versionName;
    std::optional<std::uint16_t> cipherSuite;
    std::string cipherSuiteName;  ///< the registered name where it is known, else the code point
    bool isSupportedVersion = false;
    bool isSupportedSuite = false;
    std::vector<TLSSecretReport> secrets;  ///< every label that this version reads
    /// Other known labels under which the key logs hold a secret for the client random: those of another version, say.
    std::vector<std::string> otherLabels;
    std::optional<TLSPrivateKeyReport> privateKeys;  ///< nothing where none is at hand, or of use to the probe
    std::optional<TLSSecretSearchReport> search;     ///< nothing where there was nothing to look for or to try, or where one opened
    TLSDirectionReport client;
    TLSDirectionReport server;

    /// Bytes of application data that opened, in both directions.
    std::int64_t plaintextBytes() const { return client.plaintextBytes + server.plaintextBytes; }
    /// Whether both directions opened to their ends, so that no other probe can open more.
    bool openedEverything() const;
};

/// What the secrets at hand amount to.
struct TLSKeyMaterialReport {
    std::int64_t secrets = 0;        ///< entries of the merged key log
    std::int64_t clientRandoms = 0;  ///< different ones among them
    std::int64_t privateKeys = 0;    ///< that are no entries of a key log
    /// The known labels among them, with the number of entries of each.
    std::vector<std::pair<std::string, std::int64_t>> labels;

    bool isEmpty() const { return secrets == 0 && privateKeys == 0; }
};

/// What stands in a key log text, line by line. Comments and empty lines do not count.
struct TLSKeyLogLineCount {
    std::int64_t lines = 0;
    std::int64_t validLines = 0;
    std::int64_t firstInvalidLine = 0;  ///< counted from 1 over all lines of the text; 0 when each is valid
    bool operator==(const TLSKeyLogLineCount&) const = default;
};

/// How far a probe goes: what the TLS plug-in is specified to open, or whatever the secrets at hand can open.
enum class DecryptionReach : std::uint8_t { strict, full };

/// How much of a stream is opened for a report.
enum class ReportDepth : std::uint8_t {
    hellos,  ///< nothing; what the hellos and the key log say
    opened,  ///< both directions to their ends, counted
};

/// Answers whether a stream decrypts. Any thread may ask.
class TLSStreamDecryptionProbing {
public:
    virtual ~TLSStreamDecryptionProbing() = default;
    virtual TLSDecryptionOutcome probe(const TCPStream& stream) const = 0;

    // What a probe may offer beyond the answer itself.

    /// What programs call it, where they say which probe answered.
    virtual std::string_view name() const { return "TLS"; }
    virtual DecryptionReach reach() const { return DecryptionReach::strict; }
    /// The same probe with the secrets of one session in place of those of the process; null for a probe that has no use for
    /// key logs, and is then asked as it is.
    virtual std::shared_ptr<const TLSStreamDecryptionProbing> withSecrets(std::shared_ptr<const KeyLogSources> secrets) const;
    /// The facts behind the answer.
    virtual std::optional<TLSDecryptionReport> report(const TCPStream& stream, ReportDepth depth) const;
    /// The messages of the plaintext: those of the interpreter that `context.host` finds for it, or else the bytes of each
    /// direction as one message, all marked as decrypted. Nothing when the stream does not open.
    virtual std::optional<StreamInterpretation> decryptedInterpretation(const TCPStream& stream, const StreamContext& context) const;
    /// The same part by part until `visit` gives false; whether the stream opens.
    virtual bool tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const;
    /// Null when the direction lacks secrets, or cannot be opened at all.
    virtual std::unique_ptr<PlaintextReader> plaintextReader(const TCPStream& stream, TCPSegment::Direction direction) const;
    virtual TLSKeyMaterialReport keyMaterial() const;
    /// Whether any secret is there for a client random (32 bytes).
    virtual bool hasSecrets(DataView clientRandom) const;
    /// Key log lines for a stream's connection, in the SSLKEYLOGFILE format, for a file that shall carry its secrets.
    virtual SecretText keyLogLines(const TCPStream& stream) const;
    /// Reads a text as a key log and counts its lines, keeping nothing.
    virtual TLSKeyLogLineCount countKeyLogLines(std::string_view text) const;
    /// Whether `decryptedExchanges` gives those of `decryptedInterpretation`.
    virtual bool tellsExchanges() const { return false; }
    /// The exchanges of the plaintext, which has none where no interpreter accepts it. Null when the stream does not open.
    virtual std::unique_ptr<StreamExchangeReader> decryptedExchanges(const TCPStream&, const StreamContext&) const { return nullptr; }
};

/// The probes that the host knows. Any thread may call it.
class TLSDecryptionProbeRegistry {
public:
    static TLSDecryptionProbeRegistry& shared();
    void registerProbe(std::shared_ptr<const TLSStreamDecryptionProbing> probe);
    void unregisterProbe(const std::shared_ptr<const TLSStreamDecryptionProbing>& probe);
    std::vector<std::shared_ptr<const TLSStreamDecryptionProbing>> snapshot() const;

    TLSDecryptionProbeRegistry(const TLSDecryptionProbeRegistry&) = delete;
    TLSDecryptionProbeRegistry& operator=(const TLSDecryptionProbeRegistry&) = delete;

private:
    TLSDecryptionProbeRegistry() = default;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<const TLSStreamDecryptionProbing>> probes_;
};

}  // namespace sealscope SEALSCOPE_API
