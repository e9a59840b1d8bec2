#ifndef SYSFSGPIO_H
#define SYSFSGPIO_H

#include <string>

// Single GPIO lines through the kernel's sysfs interface under
// /sys/class/gpio. Every call opens the file it needs, transfers a few bytes
// and closes it again; nothing is cached. Results are 0 (a descriptor for
// gpio_open) on success and a negated errno on failure: -EINVAL for a refused
// direction, edge or level, which touches nothing, and -EEXIST when the
// line's file is missing, that is, the line is not exported. Failures are
// not reported, except by the perror lines of the export, unexport and open.
int gpio_export(unsigned int gpio);
// 0 also when the line was refused by the kernel: only a failed open counts.
int gpio_unexport(unsigned int gpio);
int gpio_set_direction(unsigned int gpio, const std::string& dir);
int gpio_set_value(unsigned int gpio, unsigned int value);
// Stores 0 for the character "0" and 1 for any other; stores nothing on
// failure. A read of no byte at all is -ENODATA: no level was read.
int gpio_get_value(unsigned int gpio, unsigned int* value);
int gpio_set_edge(unsigned int gpio, const std::string& edge);
// The line's value file, read-only and non-blocking, for poll; the
// descriptor belongs to the caller.
int gpio_open(unsigned int gpio);

// The same operations for callers that report failures themselves (the
// members of shutMyGpio), which must know which step failed.
namespace sysfsGpio {

enum Failure { noFailure, argumentRefused, fileMissing, openFailed, transferFailed };

struct Outcome {
    int result;
    Failure failure;
};

Outcome exportLine(unsigned int gpio);
Outcome unexportLine(unsigned int gpio);
Outcome setDirection(unsigned int gpio, const std::string& dir);
Outcome setValue(unsigned int gpio, unsigned int value);
Outcome getValue(unsigned int gpio, unsigned int* value);
Outcome setEdge(unsigned int gpio, const std::string& edge);

std::string valuePath(unsigned int gpio);

} // namespace sysfsGpio

#endif // SYSFSGPIO_H
