// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <linux/filter.h>

/// Stands in a filter of system calls where the number of the process belongs, which nobody knows before it runs. Larger than any.
constexpr std::uint32_t ownProcess = 0x7FED'CBA9;

/// True for the instruction that compares with it.
constexpr bool isOwnProcess(const sock_filter& instruction)
{
    return instruction.code == (BPF_JMP | BPF_JEQ | BPF_K) && instruction.k == ownProcess;
}
