// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"
#include "app/desktop/export/ExportJobs.h"

#include <QObject>

#include <functional>
#include <memory>
#include <vector>

class QAction;
class QMenu;
class QProgressDialog;

namespace sealscope::desktop {

/// Fills a menu with what can be exported from a document: all streams, or those that are selected. The work is done beside the main
/// thread, with progress that can cancel it; what goes wrong is told by the document.
class ExportMenu final : public QObject {
    Q_OBJECT
public:
    using Work = std::function<ExportOutcome(const ExportSource&)>;

    /// `selected` gives the streams that are selected at the moment.
    ExportMenu(QMenu& menu, Document& document, std::function<std::vector<std::int64_t>()> selected);
    ~ExportMenu() override;

    /// Starts an export of the streams that the menu is set to.
    void run(Work work);
    bool isRunning() const { return !runs_.empty(); }
    void cancelAll();
    QAction& selectedOnly() { return *selectedOnly_; }

Q_SIGNALS:
    /// An export is complete; the sentence says where it is.
    void done(const QString& sentence);

private:
    struct Run;
    enum class Target { file, folder };

    void add(const QString& title, Target target, const QString& suggestion,
             std::function<ExportOutcome(const ExportSource&, const std::string&)> work);
    void addFormats();
    void update();
    std::vector<std::int64_t> streams() const;

    QMenu& menu_;
    Document& document_;
    std::function<std::vector<std::int64_t>()> selected_;
    QAction* all_ = nullptr;
    QAction* selectedOnly_ = nullptr;
    std::vector<QAction*> exports_;
    std::vector<QAction*> formats_;
    std::vector<std::unique_ptr<Run>> runs_;
};

}  // namespace sealscope::desktop
