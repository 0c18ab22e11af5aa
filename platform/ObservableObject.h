// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/ObserverList.h"

namespace sealscope SEALSCOPE_API {

/// An object that tells its observers before one of its published values changes.
class ObservableObject {
public:
    virtual ~ObservableObject() = default;
    ObserverList<>& objectWillChange() { return objectWillChange_; }

private:
    ObserverList<> objectWillChange_;
};

}  // namespace sealscope SEALSCOPE_API
