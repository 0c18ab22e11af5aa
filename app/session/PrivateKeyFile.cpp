// SPDX-License-Identifier: Apache-2.0
#include "app/session/PrivateKeyFile.h"

#include "platform/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

namespace sealscope {

std::expected<SecretBytes, int> readSecretFile(const std::string& file)
{
    constexpr std::size_t most = 1 << 20;
    const FileDescriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!descriptor) return std::unexpected(errno);
    SecretBytes bytes(most + 1);
    std::size_t size = 0;
    while (size < bytes.size()) {
        const std::int64_t count = descriptor.read(std::span(bytes).subspan(size));
        if (count < 0) return std::unexpected(errno);
        if (count == 0) break;
        size += static_cast<std::size_t>(count);
    }
    if (size > most) return std::unexpected(EFBIG);
    bytes.resize(size);
    return bytes;
}

std::expected<PrivateKey, PrivateKeyFileProblem> readPrivateKeyFile(const std::string& file, const std::optional<SecretBytes>& passphrase)
{
    const auto bytes = readSecretFile(file);
    if (!bytes) return std::unexpected(PrivateKeyFileProblem{bytes.error(), std::nullopt});
    auto key = PrivateKey::read(viewOf(*bytes), passphrase);
    if (!key) return std::unexpected(PrivateKeyFileProblem{0, key.error()});
    return *std::move(key);
}

std::expected<SecretBytes, int> readPassphraseFile(const std::string& file)
{
    auto bytes = readSecretFile(file);
    if (!bytes) return bytes;
    bytes->erase(std::ranges::find_first_of(*bytes, std::string_view("\r\n")), bytes->end());
    return bytes;
}

}  // namespace sealscope
