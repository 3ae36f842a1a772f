#pragma once
// A table of the activity log: every cell wraps its text (at word boundaries, or anywhere in a
// long path) and every row is as high as its tallest cell needs at the current column widths;
// rows are fitted again when a column is resized. A new top row slides down into place. The row
// and text colours come from the model's colour roles (LogTableViewDataSource).
// Main thread.

#include <QPersistentModelIndex>
#include <QPointer>
#include <QTableView>
#include <QTimer>

class QVariantAnimation;

class LogTableView final : public QTableView
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LogTableView)
public:
    explicit LogTableView(QWidget *parent = nullptr);
    ~LogTableView() override;

    void setModel(QAbstractItemModel *model) override;
    // The height that shows every text of `row` whole at the current column widths.
    int fittingHeight(int row) const;
    // True while a new row is sliding in.
    bool isSliding() const;

protected:
    void changeEvent(QEvent *event) override;

private:
    void rowsInsertedAt(int first, int last);
    void finishSlide();
    void fitAllRows();

    QTimer m_fitTimer;
    QPointer<QVariantAnimation> m_slide;
    QPersistentModelIndex m_sliding;
};
