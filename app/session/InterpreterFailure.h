// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace sealscope {

/// Why a plug-in did not interpret a stream to its end, by what it threw.
struct InterpreterFailure {
    enum class Cause { threw, threwNoException, noMemory };
    Cause cause = Cause::threw;
    std::string words = {};  ///< its own, where it threw an exception

    /// Of what is being handled; to be called where something was caught.
    static InterpreterFailure caught();
    std::string text() const;
};

}  // namespace sealscope
