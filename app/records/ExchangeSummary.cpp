// SPDX-License-Identifier: Apache-2.0
#include "app/records/ExchangeSummary.h"

#include "app/records/ExchangeRecords.h"

#include <algorithm>
#include <string_view>

namespace sealscope {

namespace {

std::string attributeText(const std::optional<StreamMessage>& message, std::string_view key)
{
    const VELValue* const value = message ? message->attribute(key) : nullptr;
    return value ? displayText(*value) : std::string();
}

/// "text/html; charset=utf-8" without its parameters.
std::string mediaType(const std::string& contentType)
{
    std::string type = contentType.substr(0, contentType.find(';'));
    while (type.ends_with(' ')) type.pop_back();
    return type;
}

}  // namespace

ExchangeSummary summaryOf(const Exchange& exchange)
{
    const auto& [request, reply] = exchange;
    ExchangeSummary summary{.time = exchange.time(), .duration = exchange.duration(), .protocol = protocolOf(exchange)};
    summary.method = attributeText(request, "method");
    summary.url = attributeText(request, "url");
    if (summary.url.empty()) summary.url = request ? request->summary : "(the capture lacks the request)";
    summary.hasReply = reply.has_value();
    if (reply) {
        const VELValue* const status = reply->attribute("status");
        if (const auto* const code = status ? std::get_if<std::int64_t>(status) : nullptr) summary.status = *code;
        summary.mediaType = mediaType(attributeText(reply, "contentType"));
        if (reply->body) summary.size = reply->body->length();
        if (request) summary.wait = std::max(0.0, reply->timestamp - request->timestamp);
    }
    summary.isFailure = !reply || summary.status.value_or(0) >= 400;
    return summary;
}

}  // namespace sealscope
