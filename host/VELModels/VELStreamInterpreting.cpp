// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/VELStreamInterpreting.h"

#include <algorithm>

namespace sealscope {

VELStreamInterpreterRegistry& VELStreamInterpreterRegistry::shared()
{
    static VELStreamInterpreterRegistry registry;
    return registry;
}

void VELStreamInterpreterRegistry::add(const VELStreamInterpreting* interpreter)
{
    const std::lock_guard lock(mutex_);
    if (std::ranges::find(interpreters_, interpreter) == interpreters_.end()) interpreters_.push_back(interpreter);
}

void VELStreamInterpreterRegistry::remove(const VELStreamInterpreting* interpreter)
{
    const std::lock_guard lock(mutex_);
    std::erase(interpreters_, interpreter);
}

std::vector<const VELStreamInterpreting*> VELStreamInterpreterRegistry::snapshot() const
{
    const std::lock_guard lock(mutex_);
    return interpreters_;
}

void VELStreamInterpreting::tell(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const
{
    if (forEachPart) return forEachPart(stream, context, visit);
    StreamPart whole = partOf(interpret(stream, context));
    visit(whole);
}

const VELStreamInterpreting* VELStreamInterpreter::firstInterpreter(const TCPStream& stream,
                                                                    const std::vector<const VELStreamInterpreting*>& among,
                                                                    const StreamContext& context)
{
    const auto found = std::ranges::find_if(among, [&](const VELStreamInterpreting* type) { return type->canInterpret(stream, context); });
    return found == among.end() ? nullptr : *found;
}

}  // namespace sealscope
