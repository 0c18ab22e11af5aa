// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamContext.h"
#include "host/VELModels/StreamExchange.h"
#include "host/VELModels/StreamFollowing.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TCPStream.h"

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// A type that can interpret streams: what the contract asks of the type itself, not of an instance.
template <class Type>
concept StreamInterpreterType = requires(const TCPStream& stream) {
    { Type::streamDisplayName } -> std::convertible_to<std::string_view>;
    { Type::canInterpret(stream) } -> std::same_as<bool>;
    { Type::interpret(stream) } -> std::same_as<StreamInterpretation>;
};

/// The same of a type that wants to know more of a stream than its bytes.
template <class Type>
concept StreamInterpreterTypeInContext = requires(const TCPStream& stream, const StreamContext& context) {
    { Type::streamDisplayName } -> std::convertible_to<std::string_view>;
    { Type::canInterpret(stream, context) } -> std::same_as<bool>;
    { Type::interpret(stream, context) } -> std::same_as<StreamInterpretation>;
};

/// What a type may offer on top: what `interpret` gives part by part, for streams that have too many messages to be held.
template <class Type>
concept StreamPartsTeller = requires(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) {
    { Type::forEachPart(stream, context, visit) } -> std::same_as<void>;
};

/// What a type may offer on top: to read a stream that still goes on.
template <class Type>
concept StreamFollowerType = requires(const StreamContext& context) {
    { Type::follow(context) } -> std::same_as<std::unique_ptr<StreamFollowing>>;
};

/// What a type may offer on top: the exchanges of `interpret` one by one, for streams that have many. Null for a stream of which it
/// has no other way to tell them than to interpret all of it.
template <class Type>
concept StreamExchangesType = requires(const TCPStream& stream, const StreamContext& context) {
    { Type::exchanges(stream, context) } -> std::same_as<std::unique_ptr<StreamExchangeReader>>;
};

/// An interpreter type as a value. There is one for each type; its address is the type's identity.
struct VELStreamInterpreting {
    std::string_view streamDisplayName;
    StreamLayer layer = StreamLayer::application;
    bool (*canInterpretInContext)(const TCPStream& stream, const StreamContext& context) = nullptr;
    StreamInterpretation (*interpretInContext)(const TCPStream& stream, const StreamContext& context) = nullptr;
    /// Hands over what `interpret` gives, part by part, until `visit` gives false. Null for a type that does not offer it.
    void (*forEachPart)(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) = nullptr;
    /// Begins to read a stream that still goes on, of which `canInterpret` accepts the beginning. Null for a type that does not offer it.
    std::unique_ptr<StreamFollowing> (*follow)(const StreamContext& context) = nullptr;
    /// Null for a type that does not offer it; gives null where `interpret` is to be asked.
    std::unique_ptr<StreamExchangeReader> (*exchanges)(const TCPStream& stream, const StreamContext& context) = nullptr;
    /// Whether it holds on to no view of a stream's bytes while it looks at megabytes of others, and so may be given data that are made
    /// when they are looked at.
    bool readsPieceByPiece = false;

    bool canInterpret(const TCPStream& stream, const StreamContext& context = {}) const { return canInterpretInContext(stream, context); }
    StreamInterpretation interpret(const TCPStream& stream, const StreamContext& context = {}) const
    {
        return interpretInContext(stream, context);
    }
    /// The same part by part, in one where the type has no other way.
    void tell(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit) const;

    /// `Type::streamLayer` says the layer; a type without it is of the application layer.
    template <class Type>
        requires StreamInterpreterType<Type> || StreamInterpreterTypeInContext<Type>
    static const VELStreamInterpreting* type()
    {
        static constexpr VELStreamInterpreting descriptor{.streamDisplayName = Type::streamDisplayName,
                                                          .layer = layerOf<Type>(),
                                                          .canInterpretInContext =
                                                              [](const TCPStream& stream, const StreamContext& context) {
                                                                  if constexpr (StreamInterpreterTypeInContext<Type>)
                                                                      return Type::canInterpret(stream, context);
                                                                  else
                                                                      return static_cast<void>(context), Type::canInterpret(stream);
                                                              },
                                                          .interpretInContext =
                                                              [](const TCPStream& stream, const StreamContext& context) {
                                                                  if constexpr (StreamInterpreterTypeInContext<Type>)
                                                                      return Type::interpret(stream, context);
                                                                  else
                                                                      return static_cast<void>(context), Type::interpret(stream);
                                                              },
                                                          .forEachPart = tellerOf<Type>(),
                                                          .follow = followerOf<Type>(),
                                                          .exchanges = exchangesOf<Type>(),
                                                          .readsPieceByPiece = readsInPieces<Type>()};
        return &descriptor;
    }

private:
    template <class Type> static constexpr StreamLayer layerOf()
    {
        if constexpr (requires { Type::streamLayer; })
            return Type::streamLayer;
        else
            return StreamLayer::application;
    }
    template <class Type> static constexpr decltype(VELStreamInterpreting::forEachPart) tellerOf()
    {
        if constexpr (StreamPartsTeller<Type>)
            return &Type::forEachPart;
        else
            return nullptr;
    }
    template <class Type> static constexpr bool readsInPieces()
    {
        if constexpr (requires { Type::readsPieceByPiece; })
            return Type::readsPieceByPiece;
        else
            return false;
    }
    template <class Type> static constexpr decltype(VELStreamInterpreting::exchanges) exchangesOf()
    {
        if constexpr (StreamExchangesType<Type>)
            return &Type::exchanges;
        else
            return nullptr;
    }
    template <class Type> static constexpr decltype(VELStreamInterpreting::follow) followerOf()
    {
        if constexpr (StreamFollowerType<Type>)
            return &Type::follow;
        else
            return nullptr;
    }
};

/// The interpreter types that the host knows. Any thread may call it.
class VELStreamInterpreterRegistry {
public:
    static VELStreamInterpreterRegistry& shared();
    /// Adds a type at the end; a type that is listed already stays where it is.
    void add(const VELStreamInterpreting* interpreter);
    void remove(const VELStreamInterpreting* interpreter);
    /// The types registered at this moment, in the registry's order.
    std::vector<const VELStreamInterpreting*> snapshot() const;

    VELStreamInterpreterRegistry(const VELStreamInterpreterRegistry&) = delete;
    VELStreamInterpreterRegistry& operator=(const VELStreamInterpreterRegistry&) = delete;

private:
    VELStreamInterpreterRegistry() = default;
    mutable std::mutex mutex_;
    std::vector<const VELStreamInterpreting*> interpreters_;
};

struct VELStreamInterpreter {
    VELStreamInterpreter() = delete;
    /// The first of the types that accepts the stream, or null.
    static const VELStreamInterpreting* firstInterpreter(const TCPStream& stream, const std::vector<const VELStreamInterpreting*>& among,
                                                         const StreamContext& context = {});
};

}  // namespace sealscope SEALSCOPE_API
