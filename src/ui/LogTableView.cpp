#include "ui/LogTableView.h"

#include "app/LogTableViewDataSource.h"
#include "util/Pace.h"

#include <QEvent>
#include <QHeaderView>
#include <QPainter>
#include <QStyledItemDelegate>
#include <QTextLayout>
#include <QVariantAnimation>
#include <cmath>

namespace {

constexpr int kMarginX = 5;
constexpr int kMarginY = 3;
constexpr qint64 kSlideMs = 220;
// Starting widths of the eight columns: name, work, size, path, folder, time, description, success.
constexpr int kColumnWidths[LogTableViewDataSource::ColumnCount] = {150, 105, 85, 250, 55, 140, 160, 60};

QColor colourFrom(const QVariant &rgba, const QColor &fallback)
{
    const QVariantList parts = rgba.toList();
    if (parts.size() != 4)
        return fallback;
    return QColor::fromRgbF(parts[0].toFloat(), parts[1].toFloat(), parts[2].toFloat(), parts[3].toFloat());
}

// Lays `text` out in `width` pixels, breaking at word boundaries where it can and anywhere
// where it must; returns the height used.
qreal layOut(QTextLayout &layout, qreal width)
{
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    layout.beginLayout();
    qreal height = 0;
    for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
        line.setLineWidth(qMax<qreal>(width, 1));
        line.setPosition(QPointF(0, height));
        height += line.height();
    }
    layout.endLayout();
    return height;
}

// Paints and measures cells with the same wrapping, so a fitted row shows its texts whole.
class LogItemDelegate final : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        QStyleOptionViewItem opt(option);
        initStyleOption(&opt, index);
        QColor background =
            colourFrom(index.data(LogTableViewDataSource::RowColorRole), opt.palette.color(QPalette::Base));
        QColor foreground =
            colourFrom(index.data(LogTableViewDataSource::TextColorRole), opt.palette.color(QPalette::Text));
        if (opt.state & QStyle::State_Selected) {
            background = opt.palette.color(QPalette::Highlight);
            foreground = opt.palette.color(QPalette::HighlightedText);
        }
        painter->save();
        painter->setClipRect(opt.rect);
        painter->fillRect(opt.rect, background);
        QTextLayout layout(opt.text, opt.font);
        const QRect area = opt.rect.adjusted(kMarginX, kMarginY, -kMarginX, -kMarginY);
        const qreal height = layOut(layout, area.width());
        painter->setPen(foreground);
        // Single lines sit in the middle of a taller row; wrapped texts start at the top.
        const qreal top = area.top() + qMax<qreal>(0, (area.height() - height) / 2);
        layout.draw(painter, QPointF(area.left(), top));
        painter->restore();
    }

    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        QStyleOptionViewItem opt(option);
        initStyleOption(&opt, index);
        const QFontMetrics metrics(opt.font);
        const int lineHeight = metrics.height() + 2 * kMarginY;
        if (opt.text.isEmpty())
            return {2 * kMarginX, lineHeight};
        const int naturalWidth = metrics.horizontalAdvance(opt.text) + 2 * kMarginX;
        if (!opt.rect.isValid() || opt.rect.width() <= 0)
            return {naturalWidth, lineHeight};
        QTextLayout layout(opt.text, opt.font);
        const qreal height = layOut(layout, opt.rect.width() - 2 * kMarginX);
        return {qMin(naturalWidth, opt.rect.width()),
                qMax(lineHeight, int(std::ceil(height)) + 2 * kMarginY)};
    }
};

} // namespace

LogTableView::LogTableView(QWidget *parent) : QTableView(parent)
{
    setItemDelegate(new LogItemDelegate(this));
    setWordWrap(true);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    setHorizontalScrollMode(QAbstractItemView::ScrollPerPixel);
    verticalHeader()->hide();
    verticalHeader()->setSectionResizeMode(QHeaderView::Interactive);
    verticalHeader()->setMinimumSectionSize(1);
    horizontalHeader()->setSectionResizeMode(QHeaderView::Interactive);
    horizontalHeader()->setStretchLastSection(true);
    horizontalHeader()->setHighlightSections(false);
    horizontalHeader()->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);

    // Column drags come in bursts: fit the rows once the widths have settled.
    m_fitTimer.setSingleShot(true);
    m_fitTimer.setInterval(30);
    connect(&m_fitTimer, &QTimer::timeout, this, &LogTableView::fitAllRows);
    connect(horizontalHeader(), &QHeaderView::sectionResized, &m_fitTimer, qOverload<>(&QTimer::start));
}

LogTableView::~LogTableView()
{
    if (m_slide)
        m_slide->stop();
}

void LogTableView::setModel(QAbstractItemModel *newModel)
{
    if (QAbstractItemModel *old = model())
        old->disconnect(this);
    QTableView::setModel(newModel);
    if (!newModel)
        return;
    for (int column = 0; column < LogTableViewDataSource::ColumnCount && column < newModel->columnCount();
         ++column)
        setColumnWidth(column, kColumnWidths[column]);
    connect(newModel, &QAbstractItemModel::rowsInserted, this,
            [this](const QModelIndex &, int first, int last) { rowsInsertedAt(first, last); });
    // A relabelled or changed text may need another height.
    connect(newModel, &QAbstractItemModel::dataChanged, this,
            [this](const QModelIndex &, const QModelIndex &, const QList<int> &roles) {
                if (roles.isEmpty() || roles.contains(Qt::DisplayRole))
                    m_fitTimer.start();
            });
    connect(newModel, &QAbstractItemModel::modelReset, &m_fitTimer, qOverload<>(&QTimer::start));
    connect(newModel, &QAbstractItemModel::layoutChanged, &m_fitTimer, qOverload<>(&QTimer::start));
    fitAllRows();
}

int LogTableView::fittingHeight(int row) const
{
    QAbstractItemModel *m = model();
    int height = fontMetrics().height() + 2 * kMarginY;
    if (!m)
        return height;
    QStyleOptionViewItem option;
    initViewItemOption(&option);
    for (int column = 0; column < m->columnCount(); ++column) {
        if (isColumnHidden(column))
            continue;
        const QModelIndex index = m->index(row, column);
        option.rect = QRect(0, 0, columnWidth(column), height);
        height = qMax(height, itemDelegateForIndex(index)->sizeHint(option, index).height());
    }
    return height;
}

bool LogTableView::isSliding() const
{
    return m_slide && m_slide->state() == QAbstractAnimation::Running;
}

void LogTableView::changeEvent(QEvent *event)
{
    QTableView::changeEvent(event);
    if (event->type() == QEvent::FontChange || event->type() == QEvent::StyleChange)
        m_fitTimer.start();
}

void LogTableView::rowsInsertedAt(int first, int last)
{
    finishSlide();
    for (int row = first; row <= last; ++row)
        setRowHeight(row, fittingHeight(row));
    // One new row at the top slides down into place when anyone can see it.
    if (first != 0 || last != 0 || !isVisible())
        return;
    const int target = rowHeight(0);
    m_sliding = QPersistentModelIndex(model()->index(0, 0));
    auto *slide = new QVariantAnimation(this);
    slide->setStartValue(1);
    slide->setEndValue(target);
    slide->setDuration(Pace::ms(kSlideMs));
    slide->setEasingCurve(QEasingCurve::OutCubic);
    connect(slide, &QVariantAnimation::valueChanged, this, [this](const QVariant &value) {
        if (m_sliding.isValid())
            setRowHeight(m_sliding.row(), value.toInt());
    });
    connect(slide, &QVariantAnimation::finished, this, &LogTableView::finishSlide);
    m_slide = slide;
    setRowHeight(0, 1);
    slide->start(QAbstractAnimation::DeleteWhenStopped);
}

void LogTableView::finishSlide()
{
    if (m_slide) {
        QVariantAnimation *slide = m_slide;
        m_slide = nullptr;
        slide->disconnect(this);
        slide->stop();
    }
    if (m_sliding.isValid())
        setRowHeight(m_sliding.row(), fittingHeight(m_sliding.row()));
    m_sliding = QPersistentModelIndex();
}

void LogTableView::fitAllRows()
{
    QAbstractItemModel *m = model();
    if (!m)
        return;
    const int rows = m->rowCount();
    for (int row = 0; row < rows; ++row) {
        if (m_sliding.isValid() && row == m_sliding.row())
            continue;
        setRowHeight(row, fittingHeight(row));
    }
}
