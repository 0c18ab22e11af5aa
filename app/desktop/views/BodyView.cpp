// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/BodyView.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/StringTableTranslator.h"
#include "app/desktop/models/BodyText.h"
#include "app/desktop/views/HexView.h"
#include "app/texts/SizeText.h"

#include <QBuffer>
#include <QFontDatabase>
#include <QImageReader>
#include <QLabel>
#include <QPlainTextEdit>
#include <QStackedWidget>
#include <QTabBar>
#include <QVBoxLayout>

#include <algorithm>
#include <array>
#include <utility>

namespace sealscope::desktop {

namespace {

constexpr std::int64_t longestShown = 1 << 20;   ///< bytes of text, or of anything in hexadecimal
constexpr std::int64_t largestImage = 16 << 20;  ///< bytes of its file
constexpr int widestImage = 8'192;               ///< pixels

/// A picture, of a format that is nothing but one: not of those that are documents or programs.
QImage imageOf(const Data& bytes)
{
    static constexpr std::array formats{"png", "jpeg", "gif", "bmp"};
    QByteArray file = QByteArray::fromRawData(reinterpret_cast<const char*>(bytes.view().data()), bytes.size());
    QBuffer buffer(&file);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader;
    // Told by its first bytes, whatever the message says that it is.
    const QByteArray format = QImageReader::imageFormat(&buffer);
    if (std::ranges::none_of(formats, [&](const char* known) { return format == known; })) return {};
    reader.setDevice(&buffer);
    reader.setFormat(format);
    const QSize size = reader.size();
    if (!size.isValid() || size.width() > widestImage || size.height() > widestImage) return {};
    return reader.read();
}

}  // namespace

struct BodyView::Content {
    QString plain, indented, remark;
    bool isText = false;
    QImage image;
    Data bytes;
};

BodyView::BodyView(QWidget* parent)
    : QWidget(parent), tabs_(new QTabBar), remark_(new QLabel), stack_(new QStackedWidget), text_(new QPlainTextEdit), picture_(new QLabel),
      bytes_(new HexView)
{
    text_->setReadOnly(true);
    text_->setUndoRedoEnabled(false);
    text_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    text_->setFrameShape(QFrame::NoFrame);
    text_->setAccessibleName(tr("Body as text"));
    text_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    picture_->setAlignment(Qt::AlignCenter);
    picture_->setMinimumSize(1, 1);
    picture_->setAccessibleName(tr("Body as an image"));
    bytes_->setFrameShape(QFrame::NoFrame);
    bytes_->setAccessibleName(tr("Body in hexadecimal"));
    remark_->setTextFormat(Qt::PlainText);
    remark_->setWordWrap(true);
    remark_->setContentsMargins(8, 2, 8, 4);
    remark_->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    tabs_->setDocumentMode(true);
    tabs_->setDrawBase(false);
    tabs_->setExpanding(false);
    tabs_->setAccessibleName(tr("How the body is shown"));
    for (QWidget* page : std::initializer_list<QWidget*>{text_, picture_, bytes_}) stack_->addWidget(page);

    auto* const layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(tabs_);
    layout->addWidget(remark_);
    layout->addWidget(stack_, 1);
    connect(tabs_, &QTabBar::currentChanged, this, &BodyView::choosePage);
    clear();
}

BodyView::~BodyView() = default;

void BodyView::clear()
{
    loading_.reset();
    take({.remark = tr("This message has no body")});
    stack_->hide();
}

void BodyView::setMessage(const StreamMessage& message)
{
    clear();
    if (!message.body) return;
    remark_->setText(tr("Making the body…"));
    loading_ = compute(
        [body = *message.body, hint = message.bodyHint](std::stop_token) {
            Content content;
            const std::int64_t length = body.length();
            content.bytes = beginningOf(body, longestShown);
            const auto words = bodyText(content.bytes, hint);
            content.isText = words.has_value();
            if (words) {
                content.plain = QString::fromStdString(*words);
                if (content.bytes.size() == length)
                    if (const auto indented = indentedJSON(content.bytes.view().text()))
                        content.indented = QString::fromStdString(bodyText(DataView(*indented), StreamBodyHint::text(TextEncoding::utf8)).value_or(""));
            } else if (length <= largestImage) {
                content.image = imageOf(length == content.bytes.size() ? content.bytes : body.bytes());
            }
            QStringList remarks;
            if (words) {
                const bool isLatin1 = hint && hint->form == StreamBodyHint::Form::text && hint->encoding == TextEncoding::latin1;
                remarks.append(isLatin1 ? tr("Text in ISO 8859-1") : tr("Text in UTF-8"));
            } else if (!content.image.isNull()) {
                remarks.append(tr("Image of %L1 × %L2 pixels").arg(content.image.width()).arg(content.image.height()));
            }
            remarks.append(tr("%L1 bytes").arg(length));
            if (content.bytes.size() < length && content.image.isNull())
                remarks.append(tr("the first %1 are shown").arg(QString::fromStdString(sizeText(content.bytes.size(), windowReader()))));
            const StreamBody::Ending ending = body.ending();
            if (!ending.isComplete) remarks.append(tr("incomplete: %1").arg(shownText(ending.reason)));
            content.remark = remarks.join(QStringLiteral(", "));
            return content;
        },
        [this](Content content) {
            loading_.reset();
            take(std::move(content));
        },
        [this](const std::exception& problem) {
            loading_.reset();
            take({.remark = tr("The body could not be made: %1").arg(shownText(problem.what()))});
        });
}

void BodyView::take(Content content)
{
    plain_ = std::move(content.plain);
    indented_ = std::move(content.indented);
    image_ = std::move(content.image);
    bytes_->setBytes(content.bytes);
    remark_->setText(content.remark);
    pages_.clear();
    if (!indented_.isEmpty()) pages_.push_back(Page::json);
    if (content.isText) pages_.push_back(Page::text);
    if (!image_.isNull()) pages_.push_back(Page::image);
    if (!content.bytes.isEmpty()) pages_.push_back(Page::bytes);

    const QSignalBlocker blocker(tabs_);
    while (tabs_->count() > 0) tabs_->removeTab(0);
    for (const Page page : pages_) {
        switch (page) {
        case Page::text: tabs_->addTab(tr("Text")); break;
        case Page::json: tabs_->addTab(tr("Formatted")); break;
        case Page::image: tabs_->addTab(tr("Image")); break;
        case Page::bytes: tabs_->addTab(tr("Bytes")); break;
        }
    }
    tabs_->setVisible(!pages_.empty());
    stack_->setVisible(!pages_.empty());
    choosePage(pages_.empty() ? -1 : 0);
}

void BodyView::showPage(Page page)
{
    const auto found = std::ranges::find(pages_, page);
    if (found != pages_.end()) tabs_->setCurrentIndex(static_cast<int>(found - pages_.begin()));
}

void BodyView::choosePage(int tab)
{
    if (tab < 0) return text_->clear();
    switch (pages_[static_cast<std::size_t>(tab)]) {
    case Page::text: text_->setPlainText(plain_); return stack_->setCurrentWidget(text_);
    case Page::json: text_->setPlainText(indented_); return stack_->setCurrentWidget(text_);
    case Page::image: stack_->setCurrentWidget(picture_); return showImage();
    case Page::bytes: return stack_->setCurrentWidget(bytes_);
    }
}

void BodyView::showImage()
{
    if (image_.isNull() || stack_->currentWidget() != picture_) return;
    const qreal ratio = devicePixelRatioF();
    const QSize room = picture_->size() * ratio;
    // Made smaller where it does not fit, never larger.
    const bool fits = image_.width() <= room.width() && image_.height() <= room.height();
    QPixmap shown = QPixmap::fromImage(fits ? image_ : image_.scaled(room, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    shown.setDevicePixelRatio(ratio);
    picture_->setPixmap(shown);
}

void BodyView::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    showImage();
}

QString BodyView::text() const { return text_->toPlainText(); }
QString BodyView::remark() const { return remark_->text(); }

}  // namespace sealscope::desktop
