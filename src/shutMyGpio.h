#ifndef SHUTMYGPIO_H
#define SHUTMYGPIO_H

#include <QObject>
#include <QString>

#include <string>
#include <vector>

// Watches the power-signal input, GPIO line 55. On a loss of power it
// flushes the file systems, logs the mounted storage partitions and emits
// sig_shutDown; when the power comes back it emits sig_pollOn.
//
// An owner gives run a thread of its own, where it stays for the rest of
// the process's life, and connects to the signals, which are emitted on that
// thread. A running watcher must never be destroyed.
class shutMyGpio : public QObject
{
    Q_OBJECT

public:
    // One line of the mount table.
    struct mount_point_t {
        QString device;
        QString mount_dir;
        QString fs_type;
    };

    shutMyGpio();

    // The sysfs GPIO operations with the results of the free functions of the
    // same names; they also raise debug messages about their failures, and
    // gpio_set_value one with the value file's path on every call that finds it.
    int gpio_export(unsigned int gpio);
    int gpio_unexport(unsigned int gpio);
    int gpio_set_direction(unsigned int gpio, const std::string& dir);
    int gpio_set_value(unsigned int gpio, unsigned int value);
    int gpio_get_value(unsigned int gpio, unsigned int* value);
    int gpio_set_edge(unsigned int gpio, const std::string& edge);
    int gpio_open(unsigned int gpio);

    // Fills list with the records of /proc/mounts in the table's order: 0,
    // -EINVAL when the table is not readable, a negated errno when it cannot
    // be opened. The list is emptied first on every path.
    int get_mount_list(std::vector<mount_point_t>& list);
    // Flushes the file systems and logs the SD card's partition and every
    // mounted USB-storage partition; always 0.
    int do_poweroff_process();

    // What run does each time poll reports an edge on the value file: reads
    // the level from the start of the file and acts on it. 0, or a negated
    // errno when the file does not read: the line is gone.
    int handleWake(int valueFd);

signals:
    void sig_shutDown();
    void sig_pollOn();

public slots:
    // Sets up the lines and watches the power signal; never returns. A line
    // that cannot be watched, at start or later, is set up again every
    // second until it can.
    void run();

private:
    // Both lines set up at start, with the members' messages; the value
    // file's descriptor or a negated errno.
    int setUpLines();
    // Both lines set up again every second until the line is watched.
    int watchAgain(int err);
    // One wait and what follows it; a negated errno when the line is gone.
    int watchOnce(int valueFd);

    bool poweroff_received;
};

#endif // SHUTMYGPIO_H
