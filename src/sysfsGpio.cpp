#include "sysfsGpio.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace sysfsGpio {

namespace {

const char gpioRoot[] = "/sys/class/gpio";
const char exportFile[] = "/sys/class/gpio/export";
const char unexportFile[] = "/sys/class/gpio/unexport";
const int pathSize = 128;

// The kernel names a line's directory after its number in signed decimal.
std::string lineDir(unsigned int gpio)
{
    char path[pathSize];
    snprintf(path, sizeof path, "%s/gpio%d", gpioRoot, static_cast<int>(gpio));
    return path;
}

// Writes the line number to the export or unexport control file.
Outcome writeControlFile(const char* controlFile, unsigned int gpio)
{
    const int fd = open(controlFile, O_WRONLY);
    if (fd < 0) {
        const int err = errno;
        perror("gpio/export");
        return {-err, openFailed};
    }
    char number[pathSize];
    const int length = snprintf(number, sizeof number, "%d", static_cast<int>(gpio));
    Outcome outcome = {0, noFailure};
    if (write(fd, number, length) < 0)
        outcome = {-errno, transferFailed};
    close(fd);
    return outcome;
}

// Writes to one of an exported line's files, which the kernel creates.
Outcome writeLineFile(const char* path, const char* bytes, size_t length)
{
    if (access(path, F_OK) < 0)
        return {-EEXIST, fileMissing};
    const int fd = open(path, O_WRONLY);
    if (fd < 0)
        return {-errno, openFailed};
    Outcome outcome = {0, noFailure};
    if (write(fd, bytes, length) < 0)
        outcome = {-errno, transferFailed};
    close(fd);
    return outcome;
}

} // namespace

std::string valuePath(unsigned int gpio)
{
    char path[pathSize];
    snprintf(path, sizeof path, "%s/gpio%d/value", gpioRoot, static_cast<int>(gpio));
    return path;
}

Outcome exportLine(unsigned int gpio)
{
    if (access(lineDir(gpio).c_str(), F_OK) == 0)
        return {0, noFailure};
    return writeControlFile(exportFile, gpio);
}

Outcome unexportLine(unsigned int gpio)
{
    if (access(lineDir(gpio).c_str(), F_OK) < 0)
        return {0, noFailure};
    Outcome outcome = writeControlFile(unexportFile, gpio);
    // A line the kernel refuses to withdraw is left as it is, not an error.
    if (outcome.failure == transferFailed)
        outcome.result = 0;
    return outcome;
}

Outcome setDirection(unsigned int gpio, const std::string& dir)
{
    if (dir != "in" && dir != "out")
        return {-EINVAL, argumentRefused};
    char path[pathSize];
    snprintf(path, sizeof path, "%s/gpio%u/direction", gpioRoot, gpio);
    return writeLineFile(path, dir.data(), dir.size());
}

Outcome setValue(unsigned int gpio, unsigned int value)
{
    if (value > 1)
        return {-EINVAL, argumentRefused};
    return writeLineFile(valuePath(gpio).c_str(), value == 1 ? "1" : "0", 1);
}

Outcome getValue(unsigned int gpio, unsigned int* value)
{
    const std::string path = valuePath(gpio);
    if (access(path.c_str(), F_OK) < 0)
        return {-EEXIST, fileMissing};
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return {-errno, openFailed};
    char level;
    const ssize_t got = read(fd, &level, 1);
    Outcome outcome = {0, noFailure};
    if (got < 0)
        outcome = {-errno, transferFailed};
    else if (got == 0)
        outcome = {-ENODATA, transferFailed};
    else
        *value = level == '0' ? 0 : 1;
    close(fd);
    return outcome;
}

Outcome setEdge(unsigned int gpio, const std::string& edge)
{
    if (edge != "falling" && edge != "rising")
        return {-EINVAL, argumentRefused};
    char path[pathSize];
    snprintf(path, sizeof path, "%s/gpio%d/edge", gpioRoot, static_cast<int>(gpio));
    return writeLineFile(path, edge.data(), edge.size());
}

} // namespace sysfsGpio

int gpio_export(unsigned int gpio)
{
    return sysfsGpio::exportLine(gpio).result;
}

int gpio_unexport(unsigned int gpio)
{
    return sysfsGpio::unexportLine(gpio).result;
}

int gpio_set_direction(unsigned int gpio, const std::string& dir)
{
    return sysfsGpio::setDirection(gpio, dir).result;
}

int gpio_set_value(unsigned int gpio, unsigned int value)
{
    return sysfsGpio::setValue(gpio, value).result;
}

int gpio_get_value(unsigned int gpio, unsigned int* value)
{
    return sysfsGpio::getValue(gpio, value).result;
}

int gpio_set_edge(unsigned int gpio, const std::string& edge)
{
    return sysfsGpio::setEdge(gpio, edge).result;
}

int gpio_open(unsigned int gpio)
{
    const int fd = open(sysfsGpio::valuePath(gpio).c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        const int err = errno;
        perror("gpio/fd_open");
        return -err;
    }
    return fd;
}
