// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Marks a namespace, type or function that leaves its shared library or bundle; everything else is hidden.
/// Public headers open their namespace as `namespace sealscope SEALSCOPE_API {`.
#define SEALSCOPE_API __attribute__((visibility("default")))
