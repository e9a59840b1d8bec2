// The fault screen, built as the daemon builds it: hidden, turned by the view.
#include "mainwindow.h"
#include "monitor.h"
#include "sandbox.h"
#include "ui_mainwindow.h"

#include <QApplication>
#include <QGraphicsView>
#include <QLabel>
#include <QPushButton>
#include <QtTest>

#include <memory>

namespace {

const QColor faultBlue(23, 83, 186);
const QColor acceptYellow(248, 192, 41);

} // namespace

class tst_MainWindow : public QObject
{
    Q_OBJECT

private:
    MainWindow* window = nullptr;
    // Made once the test run has begun: Qt Test installs its own handler then.
    std::unique_ptr<sandbox::MessageLog> log;

    QImage renderThroughView()
    {
        return window->view->grab().toImage().convertToFormat(QImage::Format_RGB32);
    }

    // Where a point of the window lands in the view's picture.
    QPoint onScreen(const QPoint& inWindow)
    {
        return window->view->mapFromScene(QPointF(inWindow)) + QPoint(window->view->frameWidth(), window->view->frameWidth());
    }

    QColor colourAt(const QImage& picture, const QPoint& inWindow)
    {
        const QPoint at = onScreen(inWindow);
        if (!picture.rect().contains(at))
            return QColor(Qt::transparent);
        return QColor(picture.pixel(at));
    }

private slots:
    void initTestCase()
    {
        sandbox::resetCard();
        sandbox::installChild("#!/bin/sh\nexit 0\n");
        log.reset(new sandbox::MessageLog);
        window = new MainWindow;
        QTRY_VERIFY(log->texts().contains("monitor sigchld_handler  child exited normally "));
    }

    void cleanupTestCase()
    {
        log.reset();
        delete window;
    }

    void constructionAnnouncesItselfSixTimesThenLaunchesTheChild()
    {
        const QStringList messages = log->texts();
        QCOMPARE(messages.size(), 6 + 1 + 2);
        for (int i = 0; i < 6; ++i)
            QCOMPARE(messages[i], QString("mainwindow MainWindow  add new"));
        QVERIFY(messages[6].startsWith("monitor startFork  child start as pid:  \""));
    }

    // The window lives in the scene, which only the hidden view would show.
    void nothingIsShown()
    {
        QVERIFY(window->view->isHidden());
        QVERIFY(window->graphicsProxyWidget());
        QVERIFY(window->testAttribute(Qt::WA_DontShowOnScreen));
        for (QWindow* shown : QGuiApplication::allWindows())
            QVERIFY(!shown->isVisible());
        QCOMPARE(window->objectName(), QString("MainWindow"));
        QCOMPARE(window->windowTitle(), QString("MainWindow"));
        QCOMPARE(window->size(), QSize(400, 300));
    }

    void theScreenIsTurnedThroughAFramelessView()
    {
        QGraphicsView* view = window->view;
        QCOMPARE(view->windowFlags(), Qt::WindowFlags(Qt::FramelessWindowHint | Qt::Window));
        QVERIFY(view->testAttribute(Qt::WA_TranslucentBackground));
        QCOMPARE(view->geometry(), QRect(80, 100, 200, 300));
        QCOMPARE(view->horizontalScrollBarPolicy(), Qt::ScrollBarAlwaysOff);
        QCOMPARE(view->verticalScrollBarPolicy(), Qt::ScrollBarAlwaysOff);
        QCOMPARE(view->transform(), QTransform().rotate(270.0));
        QCOMPARE(view->scene(), window->scene);
        QCOMPARE(window->scene->items().size(), 1);
        QVERIFY(!view->parent() && !window->scene->parent());
    }

    void theButtonEndsAsAccept()
    {
        QPushButton* button = window->findChild<QPushButton*>("pushButton");
        QVERIFY(button);
        QCOMPARE(button->parentWidget(), window->centralWidget());
        QCOMPARE(button->text(), QString("Accept"));
        QCOMPARE(button->geometry(), QRect(140, 170, 100, 40));
        QCOMPARE(button->font().family(), QString("Times"));
        QCOMPARE(button->font().pointSize(), 17);
        QCOMPARE(button->font().weight(), 75);
        QCOMPARE(window->label->parentWidget(), static_cast<QWidget*>(window));
        QCOMPARE(window->label->text(), QString("tolven abnormal \n   please restart!"));
        QCOMPARE(window->label->geometry(), QRect(120, 100, 200, 50));
        QCOMPARE(window->label->font().pointSize(), 15);
    }

    void aClickOnlyAccepts()
    {
        QVERIFY(!window->accepted);
        const int before = log->texts().size();
        window->findChild<QPushButton*>("pushButton")->click();
        QVERIFY(window->accepted);
        QCOMPARE(log->texts().size(), before);
        QVERIFY(window->view->isHidden());
        for (QWindow* shown : QGuiApplication::allWindows())
            QVERIFY(!shown->isVisible());
    }

    void aFormKeepsAnExistingObjectName()
    {
        QMainWindow named;
        named.setObjectName("fault");
        Ui::MainWindow form;
        form.setupUi(&named);
        QCOMPARE(named.objectName(), QString("fault"));
        QCOMPARE(form.pushButton->text(), QString("PushButton"));
        QCOMPARE(form.pushButton->geometry(), QRect(140, 200, 88, 27));
    }

    void thePictureShowsBlueTextAndButtonTurned()
    {
        const QImage picture = renderThroughView();
        const QString png = QString::fromLocal8Bit(qgetenv("FAULT_SCREEN_PNG"));
        if (!png.isEmpty())
            QVERIFY(picture.save(png));
        QCOMPARE(picture.size(), QSize(200, 300));

        // Turned by 270 degrees, the window's x axis runs up the picture.
        const QPoint origin = onScreen(QPoint(200, 150));
        QCOMPARE(onScreen(QPoint(210, 150)) - origin, QPoint(0, -10));
        QCOMPARE(onScreen(QPoint(200, 160)) - origin, QPoint(10, 0));

        QCOMPARE(colourAt(picture, QPoint(200, 20)), faultBlue);
        QCOMPARE(colourAt(picture, QPoint(200, 160)), faultBlue);
        QCOMPARE(colourAt(picture, QPoint(145, 175)), acceptYellow);
        QCOMPARE(colourAt(picture, QPoint(235, 185)), acceptYellow);
        QCOMPARE(colourAt(picture, QPoint(138, 190)), faultBlue);
        QCOMPARE(colourAt(picture, QPoint(242, 190)), faultBlue);

        int whiteInLabel = 0;
        for (int x = 120; x < 320; ++x) {
            for (int y = 100; y < 150; ++y) {
                const QPoint at = onScreen(QPoint(x, y));
                if (picture.rect().contains(at) && QColor(picture.pixel(at)) == Qt::white)
                    ++whiteInLabel;
            }
        }
        QVERIFY2(whiteInLabel > 50, qPrintable(QString::number(whiteInLabel)));
    }
};

SANDBOXED_LAUNCHER_TEST_MAIN(tst_MainWindow)
#include "tst_mainwindow.moc"
