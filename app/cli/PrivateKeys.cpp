// SPDX-License-Identifier: Apache-2.0
#include "app/cli/PrivateKeys.h"

#include "app/cli/text/Messages.h"
#include "app/session/PrivateKeyFile.h"
#include "app/texts/DisplayText.h"
#include "platform/FileDescriptor.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <termios.h>

namespace sealscope::cli {

namespace {

volatile std::sig_atomic_t arrivedSignal = 0;

/// The controlling terminal without echo. Signals that would end the program wait until it echoes again.
class SilentTerminal {
public:
    SilentTerminal() : terminal_(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY))
    {
        if (!terminal_ || tcgetattr(terminal_.number(), &before_) != 0) return;
        arrivedSignal = 0;
        struct sigaction noted{};
        noted.sa_handler = [](int signal) { arrivedSignal = signal; };
        sigset_t ours;
        sigemptyset(&ours);
        for (std::size_t i = 0; i < signals.size(); ++i) {
            sigaction(signals[i], &noted, &handlers_[i]);
            sigaddset(&ours, signals[i]);
        }
        // They arrive while it waits for the terminal, and at no other time.
        sigprocmask(SIG_BLOCK, &ours, &mask_);
        hasSignals_ = true;
        termios silent = before_;
        silent.c_lflag = (silent.c_lflag & ~static_cast<tcflag_t>(ECHO)) | ECHONL;
        isSilent_ = tcsetattr(terminal_.number(), TCSAFLUSH, &silent) == 0;
    }
    ~SilentTerminal()
    {
        if (isSilent_) tcsetattr(terminal_.number(), TCSAFLUSH, &before_);
        if (!hasSignals_) return;
        for (std::size_t i = 0; i < signals.size(); ++i) sigaction(signals[i], &handlers_[i], nullptr);
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
        if (arrivedSignal != 0) std::raise(arrivedSignal);
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;

    /// Asks, and gives the line that is typed; nothing without a terminal, or when nothing is typed any more.
    std::optional<SecretBytes> ask(const std::string& question)
    {
        if (!isSilent_ || terminal_.write(DataView(question)) != 0) return std::nullopt;
        SecretBytes line;
        line.reserve(longestPassphrase);
        std::uint8_t byte = 0;
        while (line.size() < longestPassphrase) {
            pollfd typed{.fd = terminal_.number(), .events = POLLIN, .revents = 0};
            if (ppoll(&typed, 1, nullptr, &mask_) < 0 || arrivedSignal != 0 || terminal_.read({&byte, 1}) <= 0) return std::nullopt;
            if (byte == '\n') return line;
            line.push_back(byte);
        }
        return std::nullopt;
    }

private:
    static constexpr std::size_t longestPassphrase = 1'024;
    static constexpr std::array<int, 4> signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    FileDescriptor terminal_;
    termios before_{};
    std::array<struct sigaction, signals.size()> handlers_{};
    sigset_t mask_{};
    bool hasSignals_ = false;
    bool isSilent_ = false;
};

std::optional<SecretBytes> askForPassphrase(const std::string& file)
{
    return SilentTerminal().ask(fmt::format("passphrase of {}: ", displaySafe(file)));
}

std::string problemText(const PrivateKeyFileProblem& problem)
{
    if (!problem.problem) return errorText(problem.error);
    switch (*problem.problem) {
    case PrivateKey::Problem::noKey: return "neither a private key in PEM nor PKCS #12";
    case PrivateKey::Problem::needsPassphrase:
        return "is encrypted, and there is no terminal to ask for the passphrase on: use --passphrase-file FILE";
    case PrivateKey::Problem::wrongPassphrase: return "the passphrase does not open it";
    case PrivateKey::Problem::notRSA: return "not an RSA key; no other opens a connection";
    }
    std::unreachable();
}

}  // namespace

std::optional<std::vector<PrivateKey>> readPrivateKeys(const Options& options)
{
    std::optional<SecretBytes> passphrase;
    if (!options.passphraseFile.empty()) {
        auto line = readPassphraseFile(options.passphraseFile);
        if (!line) {
            complain(fmt::format("--passphrase-file {}: {}", options.passphraseFile, errorText(line.error())));
            return std::nullopt;
        }
        passphrase = *std::move(line);
    }
    std::vector<PrivateKey> keys;
    for (const std::string& file : options.privateKeys) {
        auto key = readPrivateKeyFile(file, passphrase);
        constexpr int mostQuestions = 3;
        for (int asked = 0; !key && options.passphraseFile.empty() && asked < mostQuestions; ++asked) {
            if (key.error().problem != PrivateKey::Problem::needsPassphrase && key.error().problem != PrivateKey::Problem::wrongPassphrase)
                break;
            const auto typed = askForPassphrase(file);
            if (!typed) break;
            key = readPrivateKeyFile(file, typed);
        }
        if (!key) {
            complain(fmt::format("--private-key {}: {}", file, problemText(key.error())));
            return std::nullopt;
        }
        keys.push_back(*std::move(key));
    }
    return keys;
}

}  // namespace sealscope::cli
