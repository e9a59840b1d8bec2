#include "mainwindow.h"
#include "ui_mainwindow.h"

#include "monitor.h"

#include <QDebug>
#include <QFont>
#include <QGraphicsScene>
#include <QGraphicsView>
#include <QLabel>
#include <QPalette>

namespace {

const QColor faultBlue(23, 83, 186, 255);
const char fontFamily[] = "Times";
const int boldWeight = 75;
const char faultText[] = "tolven abnormal \n   please restart!";
const char acceptStyle[] =
    "QPushButton{background-color: rgb(248, 192, 41);color: white;border-style:none}"
    "QPushButton::pressed{color:rgb(255,0,0);border:1px}";
const qreal viewRotation = 270.0;

void announce()
{
    qDebug() << "mainwindow" << "MainWindow" << " add new";
}

} // namespace

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent)
    , ui(new Ui::MainWindow)
    , accepted(false)
    , scene(nullptr)
    , view(nullptr)
    , label(nullptr)
{
    ui->setupUi(this);
    announce();
    buildFaultText();
    styleAcceptButton();
    paintBackground();
    for (int i = 0; i < 4; ++i)
        announce();
    scene = new QGraphicsScene;
    announce();
    view = new QGraphicsView;
    turnIntoView();
    startFork();
}

MainWindow::~MainWindow()
{
    delete ui;
}

void MainWindow::on_pushButton_clicked()
{
    accepted = true;
}

void MainWindow::buildFaultText()
{
    label = new QLabel(this);
    label->setGeometry(120, 100, 200, 50);
    label->setFont(QFont(fontFamily, 15, boldWeight, false));
    label->setStyleSheet("QLabel{color: white}");
    label->setText(faultText);
}

void MainWindow::styleAcceptButton()
{
    ui->pushButton->setText("Accept");
    ui->pushButton->setGeometry(140, 170, 100, 40);
    ui->pushButton->setFont(QFont(fontFamily, 17, boldWeight, false));
    ui->pushButton->setStyleSheet(acceptStyle);
}

void MainWindow::paintBackground()
{
    QPalette palette;
    palette.setBrush(QPalette::All, QPalette::Window, QBrush(faultBlue, Qt::SolidPattern));
    setPalette(palette);
}

// The appliance's panel is mounted on its side: the screen is shown through
// a frameless view turned by 270 degrees, and kept hidden until needed.
void MainWindow::turnIntoView()
{
    scene->addWidget(this, Qt::WindowFlags());
    view->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    view->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    view->setWindowFlags(Qt::FramelessWindowHint);
    view->setAttribute(Qt::WA_TranslucentBackground);
    view->setGeometry(80, 100, 200, 300);
    view->rotate(viewRotation);
    view->setScene(scene);
    view->hide();
}
