// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSProtocolAnalyzer.h"
#include "harness/Certificates.h"
#include "tests/Sealscope/TLSBytes.h"

#include <any>
#include <benchmark/benchmark.h>

namespace sealscope {
namespace {

void startTest(benchmark::State& state)
{
    const Data payload = wire::record(23, patternBytes(1'400));
    DataView view = payload;
    for (auto _ : state) {
        benchmark::DoNotOptimize(view);
        benchmark::DoNotOptimize(TLSDissector::looksLikeTLS(view));
    }
}
BENCHMARK(startTest);

void createAnalyzer(benchmark::State& state)
{
    const Data payload = wire::record(23, patternBytes(1'400));
    for (auto _ : state) benchmark::DoNotOptimize(TLSProtocolAnalyzer::create(payload, {}));
}
BENCHMARK(createAnalyzer);

void scanRecords(benchmark::State& state)
{
    const Data record = wire::record(23, patternBytes(state.range(0)));
    const Data payload = joined(std::vector<Data>(1'000, record));
    for (auto _ : state) benchmark::DoNotOptimize(TLSDissector::parseRecords(payload));
    state.SetItemsProcessed(state.iterations() * 1'000);  // records: a scan skips bodies, bytes would flatter it
}
BENCHMARK(scanRecords)->ArgName("recordLength")->Arg(64)->Arg(1'400)->Arg(16'384);

void parseClientHello(benchmark::State& state)
{
    const Data body = wire::browserClientHello().sub(9, 508);
    for (auto _ : state) benchmark::DoNotOptimize(TLSDissector::parseClientHello(body, 9));
}
BENCHMARK(parseClientHello);

void parseServerHello(benchmark::State& state)
{
    const Data body = joined(
        {wire::helloStart(0x0303, 32), hex("1301 00"),
         wire::counted(2, joined({wire::extension(51, joined({hex("001D 0020"), patternBytes(32)})), wire::extension(43, hex("0304"))}))});
    for (auto _ : state) benchmark::DoNotOptimize(TLSDissector::parseServerHello(body, 9));
}
BENCHMARK(parseServerHello);

void summaryLine(benchmark::State& state, const Data& payload)
{
    const auto analyzer = TLSProtocolAnalyzer::create(payload, {});
    for (auto _ : state) benchmark::DoNotOptimize(analyzer->protocolInfo(payload));
}
BENCHMARK_CAPTURE(summaryLine, applicationData, wire::record(23, patternBytes(1'400)));
BENCHMARK_CAPTURE(summaryLine, clientHello, wire::browserClientHello());

void serverNameColumn(benchmark::State& state)
{
    const Data payload = wire::browserClientHello();
    const auto analyzer = TLSProtocolAnalyzer::create(payload, {});
    for (auto _ : state) benchmark::DoNotOptimize(analyzer->value("tlsServerName", payload));
}
BENCHMARK(serverNameColumn);

std::int64_t countNodes(const VELNodeProtocol& node)
{
    std::int64_t count = 1;
    node.forEachChild([&](const auto& child) {
        count += countNodes(*child);
        return true;
    });
    return count;
}

void nodeTree(benchmark::State& state, const Data& payload)
{
    const auto analyzer = TLSProtocolAnalyzer::create(payload, {});
    for (auto _ : state) benchmark::DoNotOptimize(countNodes(*analyzer->protocolNodes(payload).front()));
}
BENCHMARK_CAPTURE(nodeTree, applicationData, wire::record(23, patternBytes(1'400)));
BENCHMARK_CAPTURE(nodeTree, clientHello, wire::browserClientHello());

void certificateSummary(benchmark::State& state, CertificateKey key)
{
    const Data der = makeCertificate({.key = key,
                                      .subject = {{"C", "US"}, {"O", "Example Organization"}, {"CN", "www.example.org"}},
                                      .alternativeNames = {"DNS:www.example.org", "DNS:example.org", "DNS:api.example.org"}});
    for (auto _ : state) benchmark::DoNotOptimize(TLSDissector::certSummary(der));
}
BENCHMARK_CAPTURE(certificateSummary, rsa2048, CertificateKey::rsa2048);
BENCHMARK_CAPTURE(certificateSummary, ecdsaP256, CertificateKey::ecdsaP256);

}  // namespace
}  // namespace sealscope
