// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/Document.h"
#include "app/desktop/models/PacketModel.h"
#include "app/desktop/views/PacketsView.h"
#include "app/plugins/PlugInLoader.h"

#include <QApplication>
#include <QScrollBar>
#include <QTableView>

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>

// What one waits for in front of the window. The capture is a large one, as tools/make-capture makes it:
//     make-capture --shape large --size 1GB --out /tmp/large.pcapng
//     WindowBench /tmp/large.pcapng
// First rows are judged by half a second, a frame by the 16.7 ms that 60 of them a second leave, a filter by a bare `sealscope
// packets` over the same file.

using namespace sealscope;
using namespace sealscope::desktop;

namespace {

QString captureFile;

void waitFor(const std::function<bool()>& holds)
{
    while (!holds()) QApplication::processEvents(QEventLoop::WaitForMoreEvents, 10);
}

struct Opened {
    Document document;
    PacketsView view{document};

    Opened()
    {
        view.resize(1'400, 900);
        view.show();
        document.open({captureFile});
    }
    PacketModel& rows() { return view.packets(); }
    void finish()
    {
        waitFor([&] { return !document.isReading() && !rows().isFiltering(); });
    }
};

/// From the wish to open a capture to the first rows on the screen.
void firstRows(benchmark::State& state)
{
    for (auto _ : state) {
        auto opened = std::make_unique<Opened>();
        waitFor([&] { return opened->rows().rowCount() > 0; });
        opened->view.table().viewport()->repaint();
        state.PauseTiming();
        opened.reset();
        Job::waitForAll();
        state.ResumeTiming();
    }
}
BENCHMARK(firstRows)->Unit(benchmark::kMillisecond)->Iterations(5);

/// All rows and all streams.
void wholeCapture(benchmark::State& state)
{
    std::int64_t packets = 0;
    for (auto _ : state) {
        Opened opened;
        opened.finish();
        packets += opened.document.packets()->size();
    }
    state.SetItemsProcessed(packets);
}
BENCHMARK(wholeCapture)->Unit(benchmark::kMillisecond)->Iterations(1);

/// One frame after a jump to anywhere, with no text of it known yet.
void frameAnywhere(benchmark::State& state)
{
    Opened opened;
    opened.finish();
    QScrollBar& bar = *opened.view.table().verticalScrollBar();
    std::mt19937 random(1);
    for (auto _ : state) {
        bar.setValue(static_cast<int>(random() % static_cast<unsigned>(bar.maximum() + 1)));
        opened.view.table().viewport()->repaint();
    }
}
BENCHMARK(frameAnywhere)->Unit(benchmark::kMillisecond);

/// A filter by any column, until the last packet was looked at.
void filter(benchmark::State& state)
{
    Opened opened;
    opened.finish();
    std::int64_t packets = 0;
    for (auto _ : state) {
        opened.rows().setFilter({.times = {}, .kind = {}, .text = "Client Hello"});
        waitFor([&] { return !opened.rows().isFiltering(); });
        packets += opened.document.packets()->size();
    }
    state.SetItemsProcessed(packets);
}
BENCHMARK(filter)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

int main(int argumentCount, char** arguments)
{
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    benchmark::Initialize(&argumentCount, arguments);
    QApplication application(argumentCount, arguments);
    if (argumentCount != 2) {
        std::fprintf(stderr, "use: WindowBench CAPTURE\n");
        return 2;
    }
    captureFile = QString::fromLocal8Bit(arguments[1]);
    PlugInLoader::load({});
    benchmark::RunSpecifiedBenchmarks();
    Job::waitForAll();
    return 0;
}
