// SPDX-License-Identifier: Apache-2.0
#include "app/session/InterpreterFailure.h"

#include <exception>
#include <new>
#include <utility>

namespace sealscope {

InterpreterFailure InterpreterFailure::caught()
{
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return {.cause = Cause::noMemory};
    } catch (const std::exception& problem) {
        return {.words = problem.what()};
    } catch (...) {
        return {.cause = Cause::threwNoException};
    }
}

std::string InterpreterFailure::text() const
{
    switch (cause) {
    case Cause::threw: return words;
    case Cause::threwNoException: return "it gave no reason";
    case Cause::noMemory: return "out of memory";
    }
    std::unreachable();
}

}  // namespace sealscope
