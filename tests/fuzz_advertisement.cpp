// The target of libFuzzer: hands the manager anything that a device nearby can advertise.
#include "AdvertisementCheck.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int argc = 1;
    static char name[] = "fuzz_advertisement";
    static char *argv[] = { name, nullptr };
    static const QCoreApplication app(argc, argv);
    static AdvertisementCheck check;
    const QString wrong = check.run(
            QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    if (!wrong.isEmpty()) {
        std::fprintf(stderr, "Wrong: %s\n", qPrintable(wrong));
        std::abort();
    }
    return 0;
}
