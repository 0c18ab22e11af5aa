// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace sealscope::cli {

/// Writes "sealscope: SENTENCE" on standard error, as one line that a terminal obeys nothing in.
void complain(std::string_view sentence);

/// Keeps what is said from here on until `releaseMessages`: a pager has the terminal.
void holdMessages();
void releaseMessages();

/// From now on `remark` says nothing, as `--quiet` wants it.
void silenceRemarks();
/// As `complain`, for what the user may want to know and can do without.
void remark(std::string_view sentence);

}  // namespace sealscope::cli
