// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Job.h"
#include "host/VELModels/StreamMessage.h"

#include <QImage>
#include <QWidget>

#include <memory>

class QLabel;
class QPlainTextEdit;
class QStackedWidget;
class QTabBar;

namespace sealscope::desktop {

class HexView;

/// The body of a message: as text with its encoding, as indented JSON, as an image where it is one, and always as bytes. It is made
/// beside the main thread; of a long one the beginning is shown.
class BodyView final : public QWidget {
    Q_OBJECT
public:
    /// Ways to show a body.
    enum class Page : std::uint8_t { text, json, image, bytes };

    explicit BodyView(QWidget* parent = nullptr);
    ~BodyView() override;

    void setMessage(const StreamMessage& message);
    void clear();
    bool isLoading() const { return loading_ != nullptr; }
    /// The ways that this body can be shown in.
    std::vector<Page> pages() const { return pages_; }
    void showPage(Page page);
    /// What is shown, as text; and what is said of it.
    QString text() const;
    QString remark() const;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    struct Content;

    void take(Content content);
    void choosePage(int tab);
    void showImage();

    std::unique_ptr<Job> loading_;
    std::vector<Page> pages_;
    QString plain_, indented_;
    QImage image_;
    QTabBar* tabs_;
    QLabel* remark_;
    QStackedWidget* stack_;
    QPlainTextEdit* text_;
    QLabel* picture_;
    HexView* bytes_;
};

}  // namespace sealscope::desktop
