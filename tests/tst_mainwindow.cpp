// The fault screen, built as the daemon builds it: hidden, turned by the view.
// Its messages and the launch are in the daemon's scenarios (tst_daemon).
#include "mainwindow.h"
#include "sandbox.h"

#include <QGraphicsView>
#include <QLabel>
#include <QPushButton>
#include <QtTest>

class tst_MainWindow : public QObject
{
    Q_OBJECT
    MainWindow* window = nullptr;

    // Where a point of the window lands in the view's picture.
    QPoint onScreen(int x, int y)
    {
        return window->view->mapFromScene(QPointF(x, y)) + QPoint(window->view->frameWidth(), window->view->frameWidth());
    }

private slots:
    void initTestCase()
    {
        sandbox::resetCard();
        sandbox::installChild("#!/bin/sh\nexit 0\n");
        window = new MainWindow;
    }
    void cleanupTestCase() { delete window; }

    void nothingIsShownEvenOnAccept()
    {
        QCOMPARE(window->label->text(), QString("tolven abnormal \n   please restart!"));
        QPushButton* button = window->findChild<QPushButton*>("pushButton");
        QCOMPARE(button->text(), QString("Accept"));
        button->click();
        QVERIFY(window->accepted && window->view->isHidden() && window->graphicsProxyWidget());
        for (QWindow* shown : QGuiApplication::allWindows())
            QVERIFY(!shown->isVisible());
        QCOMPARE(window->view->windowFlags(), Qt::FramelessWindowHint | Qt::Window);
        QVERIFY(window->view->testAttribute(Qt::WA_TranslucentBackground));
    }

    void thePictureShowsBlueTextAndButtonTurned()
    {
        const QImage picture = window->view->grab().toImage().convertToFormat(QImage::Format_RGB32);
        const QString png = QString::fromLocal8Bit(qgetenv("FAULT_SCREEN_PNG"));
        QVERIFY(png.isEmpty() || picture.save(png));
        QCOMPARE(picture.size(), QSize(200, 300));
        // Turned by 270 degrees, the window's x axis runs up the picture.
        QCOMPARE(onScreen(210, 150) - onScreen(200, 150), QPoint(0, -10));
        QCOMPARE(onScreen(200, 160) - onScreen(200, 150), QPoint(10, 0));
        const QColor blue(23, 83, 186), yellow(248, 192, 41);
        const struct { int x, y; QColor colour; } points[] = {{200, 20, blue}, {200, 160, blue}, {145, 175, yellow},
                                                           {235, 185, yellow}, {138, 190, blue}, {242, 190, blue}};
        for (const auto& point : points)
            QCOMPARE(QColor(picture.pixel(onScreen(point.x, point.y))), point.colour);
        int whiteInLabel = 0;
        for (int x = 120; x < 320; ++x) {
            for (int y = 100; y < 150; ++y)
                whiteInLabel += picture.rect().contains(onScreen(x, y)) && QColor(picture.pixel(onScreen(x, y))) == Qt::white;
        }
        QVERIFY2(whiteInLabel > 50, qPrintable(QString::number(whiteInLabel)));
    }
};

SANDBOXED_TEST_MAIN(tst_MainWindow)
#include "tst_mainwindow.moc"
