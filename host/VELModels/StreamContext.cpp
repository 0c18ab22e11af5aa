// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamContext.h"

#include <utility>

namespace sealscope {

namespace {

bool tellWhole(std::optional<StreamInterpretation> interpretation, const StreamPartVisitor& visit)
{
    if (!interpretation) return false;
    StreamPart whole = partOf(*std::move(interpretation));
    visit(whole);
    return true;
}

}  // namespace

bool StreamHost::tellDecrypted(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const
{
    return tellWhole(decryptedInterpretation(stream, context), visit);
}

bool StreamHost::tellCarried(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const
{
    return tellWhole(carriedInterpretation(stream, context), visit);
}

}  // namespace sealscope
