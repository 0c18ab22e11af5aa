// SPDX-License-Identifier: Apache-2.0
// `decrypt --output` of a gigabyte, from start to end, beside its two floors: opening as many records with libcrypto on one
// core, and writing as many bytes to the same folder. The three take turns, since a machine's mood changes within seconds, and
// the ratio of each round to its own floors counts.
#include "harness/RunProgram.h"
#include "harness/TempDirectory.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <openssl/evp.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using sealscope::runProgram;

constexpr int recordSize = 16'384;
constexpr int connections = 4;  // of the capture, and files that the command writes for them

template <class Work> double secondsOf(const Work& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// The capture, its key log, and a folder that is emptied before each use.
class Place {
public:
    Place()
    {
        if (runProgram({SEALSCOPE_MAKE_CAPTURE, "--out", capture(), "--keylog", keyLog(), "--shape", "large", "--size", "1GB"}).status != 0)
            throw std::runtime_error("no capture to measure with");
        emptyFolder();
        decrypt("0");
        for (const auto& file : fs::directory_iterator(folder())) plaintextSize_ += static_cast<std::int64_t>(file.file_size());
    }

    void decrypt(const char* cores) const
    {
        const std::vector<std::string> command{"taskset", "-c",     cores,      SEALSCOPE_PROGRAM, "decrypt",
                                               "-k",      keyLog(), "--output", folder(),          capture()};
        if (runProgram(command).status != 0) throw std::runtime_error("does not decrypt");
    }

    void openAsMuch() const
    {
        const std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> cipher(EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr),
                                                                             EVP_CIPHER_free);
        const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
        const std::array<std::uint8_t, 32> key{};
        const std::array<std::uint8_t, 12> nonce{};
        std::vector<std::uint8_t> record(recordSize), opened(recordSize);
        int written = 0;
        EVP_DecryptInit_ex2(context.get(), cipher.get(), key.data(), nonce.data(), nullptr);
        for (std::int64_t size = 0; size < plaintextSize_; size += recordSize) {
            EVP_DecryptInit_ex2(context.get(), nullptr, nullptr, nonce.data(), nullptr);
            benchmark::DoNotOptimize(EVP_DecryptUpdate(context.get(), opened.data(), &written, record.data(), recordSize));
        }
    }

    void writeAsMuch() const
    {
        const std::vector<std::uint8_t> piece(256 * 1'024);
        for (int i = 0; i < connections; ++i) {
            const int file = open((folder() + "/" + std::to_string(i)).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
            for (std::int64_t left = plaintextSize_ / connections; left > 0; left -= std::ssize(piece))
                if (write(file, piece.data(), std::min(piece.size(), static_cast<std::size_t>(left))) < 0)
                    throw std::runtime_error("no room to write to");
            close(file);
        }
    }

    void emptyFolder() const
    {
        fs::remove_all(folder());
        fs::create_directory(folder());
    }

private:
    std::string capture() const { return directory_.file("large.pcapng"); }
    std::string keyLog() const { return directory_.file("keys.txt"); }
    std::string folder() const { return directory_.file("plain"); }

    sealscope::TempDirectory directory_;
    std::int64_t plaintextSize_ = 0;
};

void decryptBesideItsFloors(benchmark::State& state, const char* cores)
{
    static const Place place;
    std::vector<double> ratios;
    for (auto _ : state) {
        place.emptyFolder();
        const double floors = secondsOf([] { place.writeAsMuch(); }) + secondsOf([] { place.openAsMuch(); });
        place.emptyFolder();
        const double seconds = secondsOf([&] { place.decrypt(cores); });
        ratios.push_back(seconds / floors);
        state.SetIterationTime(seconds);
    }
    std::ranges::sort(ratios);
    state.counters["medianRatio"] = ratios[ratios.size() / 2];
    state.counters["worstRatio"] = ratios.back();
}
BENCHMARK_CAPTURE(decryptBesideItsFloors, oneCore, "0")->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decryptBesideItsFloors, twoCores, "0,1")->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
