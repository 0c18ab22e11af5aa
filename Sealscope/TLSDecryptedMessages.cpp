// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDecryptedMessages.h"

#include <utility>

namespace sealscope {

namespace {

void addRow(StreamMessage& message) { message.detail.insert(message.detail.begin(), TLSDecryptedMessages::row()); }

void markOnly(StreamMessage& message)
{
    message.id = UUID::random();
    message.isDecrypted = true;
}

class DecryptedExchanges final : public StreamExchangeReader {
public:
    explicit DecryptedExchanges(std::unique_ptr<StreamExchangeReader> inner) : inner_(std::move(inner)) {}
    std::optional<double> nextTime() const override { return inner_ ? inner_->nextTime() : std::nullopt; }
    void next(StreamExchange& exchange) override
    {
        inner_->next(exchange);
        for (auto* const message : {&exchange.request, &exchange.reply}) {
            if (!*message) continue;
            if (!inner_->addsRowsInFront()) addRow(**message);
            markOnly(**message);
        }
    }

private:
    std::unique_ptr<StreamExchangeReader> inner_;
};

}  // namespace

const DetailRow& TLSDecryptedMessages::row()
{
    static const DetailRow row{.name = "TLS", .value = "decrypted"};
    return row;
}

void TLSDecryptedMessages::mark(StreamMessage& message)
{
    addRow(message);
    markOnly(message);
}

std::unique_ptr<StreamExchangeReader> TLSDecryptedMessages::exchanges(std::unique_ptr<StreamExchangeReader> inner)
{
    return std::make_unique<DecryptedExchanges>(std::move(inner));
}

}  // namespace sealscope
