#ifndef MAINWINDOW_H
#define MAINWINDOW_H

#include <QMainWindow>

class QGraphicsScene;
class QGraphicsView;
class QLabel;

namespace Ui {
class MainWindow;
}

// The fault screen: tells the operator that the appliance's program is
// abnormal. It is built hidden, inside a scene turned by a view, and its
// construction launches the appliance's program.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

private slots:
    void on_pushButton_clicked();

private:
    friend class tst_transcripts;

    void buildFaultText();
    void styleAcceptButton();
    void paintBackground();
    void turnIntoView();

    Ui::MainWindow* ui;
    bool accepted;
    QGraphicsScene* scene;
    QGraphicsView* view;
    QLabel* label;
};

#endif // MAINWINDOW_H
