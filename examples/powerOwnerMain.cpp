// Watches the power signal and reports its losses and returns on standard
// error until it is killed.
#include "powerOwner.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    PowerOwner owner;
    owner.startWatching();
    return app.exec();
}
