// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/Certificates.h"
#include "harness/TLSSession.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

/// A session between two peers of GnuTLS, which speaks suites that libssl does not.
class GnuTLSPeers {
public:
    /// Talks under a priority string, each text in a record of its own, the client first and then by turns.
    static TLSSession talk(const std::string& priority, const std::vector<std::string>& texts)
    {
        GnuTLSPeers peers;
        peers.begin(priority);
        return peers.run(texts);
    }

private:
    using Direction = TCPSegment::Direction;
    struct Peer {
        GnuTLSPeers* peers = nullptr;
        Direction direction = Direction::clientToServer;
        gnutls_session_t session = nullptr;
        std::deque<std::uint8_t> arrived;
    };

    GnuTLSPeers() = default;
    GnuTLSPeers(const GnuTLSPeers&) = delete;
    GnuTLSPeers& operator=(const GnuTLSPeers&) = delete;

    /// Throws where GnuTLS does not know a priority; what was made until then goes with the object.
    void begin(const std::string& priority)
    {
        const auto chain = CertificateChain::make({.key = CertificateKey::rsa2048});
        gnutls_certificate_allocate_credentials(&credentials_);
        const Data& leaf = chain->certificates.front();
        const gnutls_datum_t certificate{const_cast<std::uint8_t*>(leaf.data()), static_cast<unsigned>(leaf.size())};
        gnutls_x509_crt_t parsed = nullptr;
        gnutls_x509_privkey_t key = nullptr;
        gnutls_x509_crt_init(&parsed);
        gnutls_x509_privkey_init(&key);
        const std::string& pem = chain->privateKeyPEM;
        const gnutls_datum_t keyText{reinterpret_cast<std::uint8_t*>(const_cast<char*>(pem.data())), static_cast<unsigned>(pem.size())};
        check(gnutls_x509_crt_import(parsed, &certificate, GNUTLS_X509_FMT_DER));
        check(gnutls_x509_privkey_import2(key, &keyText, GNUTLS_X509_FMT_PEM, nullptr, 0));
        check(gnutls_certificate_set_x509_key(credentials_, &parsed, 1, key));
        gnutls_x509_crt_deinit(parsed);
        gnutls_x509_privkey_deinit(key);
        for (Peer& peer : both_) {
            peer.peers = this;
            peer.direction = &peer == &both_[0] ? Direction::clientToServer : Direction::serverToClient;
            gnutls_init(&peer.session, (peer.direction == Direction::clientToServer ? GNUTLS_CLIENT : GNUTLS_SERVER) | GNUTLS_NONBLOCK);
            check(gnutls_priority_set_direct(peer.session, priority.c_str(), nullptr));
            gnutls_credentials_set(peer.session, GNUTLS_CRD_CERTIFICATE, credentials_);
            gnutls_transport_set_ptr(peer.session, &peer);
            gnutls_transport_set_push_function(peer.session, &push);
            gnutls_transport_set_pull_function(peer.session, &pull);
        }
        gnutls_session_set_ptr(both_[0].session, this);
        gnutls_session_set_keylog_function(both_[0].session, [](gnutls_session_t session, const char* label, const gnutls_datum_t* secret) {
            gnutls_datum_t client{}, server{};
            gnutls_session_get_random(session, &client, &server);
            auto& log = static_cast<GnuTLSPeers*>(gnutls_session_get_ptr(session))->result_.keyLog;
            log += std::string(label) + ' ' + hexOf({client.data, std::int64_t{client.size}}) + ' ' + hexOf({secret->data, std::int64_t{secret->size}}) + '\n';
            return 0;
        });
    }
    ~GnuTLSPeers()
    {
        for (Peer& peer : both_)
            if (peer.session) gnutls_deinit(peer.session);
        if (credentials_) gnutls_certificate_free_credentials(credentials_);
    }

    TLSSession run(const std::vector<std::string>& texts)
    {
        bool done[2] = {};
        for (int round = 0; round < 50 && !(done[0] && done[1]); ++round) {
            for (int side : {0, 1}) {
                if (done[side]) continue;
                const int code = gnutls_handshake(both_[side].session);
                done[side] = code == GNUTLS_E_SUCCESS;
                if (code < 0 && gnutls_error_is_fatal(code)) result_.failure = gnutls_strerror(code);
            }
        }
        result_.isComplete = done[0] && done[1];
        std::vector<std::uint8_t> said[2];
        for (std::size_t i = 0; i < texts.size() && result_.isComplete; ++i) {
            gnutls_record_send(both_[i % 2].session, texts[i].data(), texts[i].size());
            said[i % 2].insert(said[i % 2].end(), texts[i].begin(), texts[i].end());
        }
        result_.clientPlaintext = Data(std::move(said[0]));
        result_.serverPlaintext = Data(std::move(said[1]));
        return std::move(result_);
    }

    static void check(int code)
    {
        if (code < 0) throw std::runtime_error(gnutls_strerror(code));
    }
    static std::string hexOf(DataView bytes)
    {
        std::string text;
        for (const std::uint8_t byte : bytes) {
            text += "0123456789abcdef"[byte >> 4];
            text += "0123456789abcdef"[byte & 15];
        }
        return text;
    }
    static ssize_t push(gnutls_transport_ptr_t pointer, const void* bytes, std::size_t size)
    {
        auto& peer = *static_cast<Peer*>(pointer);
        const auto* const first = static_cast<const std::uint8_t*>(bytes);
        peer.peers->result_.flights.push_back({peer.direction, Data(std::vector<std::uint8_t>(first, first + size)), {}});
        auto& other = peer.peers->both_[peer.direction == Direction::clientToServer ? 1 : 0].arrived;
        other.insert(other.end(), first, first + size);
        return static_cast<ssize_t>(size);
    }
    static ssize_t pull(gnutls_transport_ptr_t pointer, void* bytes, std::size_t size)
    {
        auto& peer = *static_cast<Peer*>(pointer);
        if (peer.arrived.empty()) {
            gnutls_transport_set_errno(peer.session, EAGAIN);
            return -1;
        }
        const std::size_t count = std::min(size, peer.arrived.size());
        std::copy_n(peer.arrived.begin(), count, static_cast<std::uint8_t*>(bytes));
        peer.arrived.erase(peer.arrived.begin(), peer.arrived.begin() + static_cast<std::ptrdiff_t>(count));
        return static_cast<ssize_t>(count);
    }

    gnutls_certificate_credentials_t credentials_ = nullptr;
    Peer both_[2];
    TLSSession result_;
};

}  // namespace sealscope
