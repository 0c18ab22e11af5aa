// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/export/ExportMenu.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/ToolTip.h"
#include "host/VELModels/VELPlugInsController.h"

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QFileDialog>
#include <QFileInfo>
#include <QMenu>
#include <QPointer>
#include <QProgressDialog>

#include <algorithm>
#include <numeric>
#include <utility>

namespace sealscope::desktop {

/// An export that is going on.
struct ExportMenu::Run {
    std::unique_ptr<Job> job;
    QPointer<QProgressDialog> dialog;  ///< the window that it belongs to may go first
    ~Run() { delete dialog; }
};

ExportMenu::ExportMenu(QMenu& menu, Document& document, std::function<std::vector<std::int64_t>()> selected)
    : QObject(&menu), menu_(menu), document_(document), selected_(std::move(selected))
{
    auto* const scope = new QActionGroup(this);
    all_ = menu.addAction(tr("&All Streams"));
    selectedOnly_ = menu.addAction(tr("&Selected Streams"));
    for (QAction* action : {all_, selectedOnly_}) {
        action->setCheckable(true);
        scope->addAction(action);
    }
    all_->setChecked(true);
    menu.addSeparator();
    add(tr("&Plaintext Files…"), Target::folder, {}, exportPlaintextFiles);
    add(tr("Plaintext &Capture…"), Target::file, QStringLiteral("plaintext.pcap"), exportPlaintextCapture);
    add(tr("&Objects…"), Target::folder, {}, exportObjects);
    menu.addSeparator();
    add(tr("Capture &with Secrets…"), Target::file, QStringLiteral("with-secrets.pcapng"), exportWithSecrets);
    add(tr("Capture with&out Secrets…"), Target::file, QStringLiteral("without-secrets.pcapng"), exportWithoutSecrets);
    menu.addSeparator();
    menu.setToolTipsVisible(true);
    connect(&menu, &QMenu::aboutToShow, this, &ExportMenu::update);
    connect(&document, &Document::replaced, this, &ExportMenu::cancelAll);
    update();
}

ExportMenu::~ExportMenu() = default;

void ExportMenu::add(const QString& title, Target target, const QString& suggestion,
                     std::function<ExportOutcome(const ExportSource&, const std::string&)> work)
{
    exports_.push_back(menu_.addAction(title, this, [this, title, target, suggestion, work = std::move(work)] {
        QString caption = title;
        caption.remove(QLatin1Char('&')).remove(QStringLiteral("…"));
        const QString folder = document_.files().isEmpty() ? QString() : QFileInfo(document_.files().front()).absolutePath();
        QWidget* const window = QApplication::activeWindow();
        const QString path = target == Target::folder ? QFileDialog::getExistingDirectory(window, caption, folder)
                                                      : QFileDialog::getSaveFileName(window, caption, folder + QLatin1Char('/') + suggestion);
        if (!path.isEmpty()) run([work, path = path.toStdString()](const ExportSource& source) { return work(source, path); });
    }));
}

// Plug-ins come and go, so they are asked each time.
void ExportMenu::addFormats()
{
    for (QAction* action : std::exchange(formats_, {})) {
        std::erase(exports_, action);
        delete action;
    }
    for (const StreamExportFormat* const format : VELPlugInsController::sharedManager().exportFormats()) {
        const QString name = shownText(format->name);
        add(tr("%1 File…").arg(name.toUpper()), Target::file, QStringLiteral("export.") + shownText(format->fileExtension),
            [format](const ExportSource& source, const std::string& file) { return exportFormat(source, *format, file); });
        formats_.push_back(exports_.back());
        formats_.back()->setToolTip(plainToolTip(shownText(format->description)));
    }
}

void ExportMenu::update()
{
    addFormats();
    const auto count = static_cast<int>(selected_().size());
    selectedOnly_->setEnabled(count > 0);
    selectedOnly_->setText(count > 0 ? tr("&Selected Streams (%n)", nullptr, count) : tr("&Selected Streams"));
    if (count == 0) all_->setChecked(true);
    const bool hasStreams = document_.session() && document_.session()->streamCount() > 0;
    for (QAction* action : exports_) action->setEnabled(hasStreams);
}

std::vector<std::int64_t> ExportMenu::streams() const
{
    if (selectedOnly_->isChecked())
        if (auto some = selected_(); !some.empty()) return some;
    std::vector<std::int64_t> every(static_cast<std::size_t>(document_.session()->streamCount()));
    std::iota(every.begin(), every.end(), std::int64_t{0});
    return every;
}

void ExportMenu::run(Work work)
{
    if (!document_.session()) return;
    auto begun = std::make_unique<Run>();
    Run* const running = begun.get();
    const auto end = [this, running] {
        std::erase_if(runs_, [&](const auto& each) { return each.get() == running; });
    };
    running->dialog = new QProgressDialog(tr("Exporting…"), tr("Cancel"), 0, 0, QApplication::activeWindow());
    running->dialog->setWindowTitle(tr("Export"));
    running->dialog->setMinimumDuration(500);
    running->dialog->setAutoReset(false);
    running->dialog->setValue(0);
    auto streams = this->streams();
    const auto total = static_cast<std::int64_t>(streams.size());
    running->job = std::make_unique<Job>(
        [this, running, end, total, work = std::move(work), session = document_.session(), streams = std::move(streams)](const Job::Context& context) {
            std::int64_t told = 0;
            const ExportSource source{.session = session,
                                      .streams = streams,
                                      .stop = context.stop(),
                                      .progress = [&](std::int64_t done) {
                                          const std::int64_t percent = done * 100 / std::max<std::int64_t>(total, 1);
                                          if (percent == std::exchange(told, percent)) return;
                                          context.deliver([running, percent] {
                                              if (!running->dialog) return;
                                              running->dialog->setMaximum(100);
                                              running->dialog->setValue(static_cast<int>(percent));
                                          });
                                      }};
            const ExportOutcome outcome = work(source);
            context.deliver([this, end, outcome] {
                if (outcome)
                    Q_EMIT done(shownText(*outcome));
                else
                    document_.tell(shownText(sentenceOf(outcome.error())));
                end();
            });
        },
        [this, end](const std::exception& problem) {
            document_.tell(tr("The export failed: %1").arg(shownText(problem.what())));
            end();
        });
    connect(running->dialog, &QProgressDialog::canceled, this, [running] {
        if (running->job) running->job->cancel();
    });
    runs_.push_back(std::move(begun));
}

void ExportMenu::cancelAll()
{
    for (const auto& each : runs_) each->job->cancel();
}

}  // namespace sealscope::desktop
