#pragma once

#include <QWidget>

#include <memory>

class QLineEdit;
class QPushButton;

namespace talvor::cloudmaterial {

/** The panel's top line: the search field and the refresh button. Qt thread. */
class DetailTitleWidget : public QWidget
{
    Q_OBJECT

public:
    explicit DetailTitleWidget(QWidget *parent = nullptr);
    ~DetailTitleWidget() override;

    QLineEdit *searchEdit() const;
    QPushButton *refreshButton() const;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

Q_SIGNALS:
    void searchTextChanged(const QString &text);
    void refreshRequested();

private:
    class Private;
    std::unique_ptr<Private> const d;
};

} // namespace talvor::cloudmaterial
