// Writing a backup of many files out. In the plain form: to a directory against `cp -r` and
// `sha1sum` of the same tree, to a zip against `zip -r -q` of it. In the devices' form: to a
// directory against `cp -r` alone, since nothing is hashed that is carried over, and to a zip
// against the same `zip -r -q`. Half of the content is random.
//
// KELVANE_BENCH_BYTES: size of the backup in all, by default 2147483648.
// KELVANE_BENCH_FILES: number of files, by default 10000.
// KELVANE_BENCH_ZIP_ROUNDS: by default 3; 0 leaves the zip out.
#include "KVBackupContainer.h"
#include "KVBackupWriting.h"
#include "KVTemporaryPath.h"
#include "Measure.hpp"
#include "container/KVBackupContainerClass.hpp"

#include <cstdio>
#include <random>

#include <sys/resource.h>
#include <sys/stat.h>

namespace {

using measure::Seconds;

constexpr int kRounds = 5;

struct Data {
    std::string directory;
    std::string source;
    std::string output;
};

[[noreturn]] void fail(const std::string &text) { throw std::runtime_error(text); }

void run(const std::string &command) {
    if (std::system(command.c_str()) != 0) {
        fail("failed: " + command);
    }
}

double childrenSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// A command's time, the processor time of all its processes.
Seconds timedCommand(const std::string &command) {
    const double before = childrenSeconds();
    const Seconds seconds = measure::Timed([&] { run(command); });
    return {seconds.wall, childrenSeconds() - before};
}

// Every other 4 KiB are random, the rest is text as logs have it.
std::vector<std::uint8_t> makeContent(std::size_t size, std::mt19937_64 &random) {
    constexpr std::size_t kStretch = 4096;
    std::vector<std::uint8_t> content(size);
    std::string line;
    for (std::size_t at = 0; at < size; ++at) {
        if (at / kStretch % 2 == 0) {
            content[at] = static_cast<std::uint8_t>(random());
            continue;
        }
        if (line.empty()) {
            line = "record " + std::to_string(random() % 1000000) + " was written\n";
        }
        content[at] = static_cast<std::uint8_t>(line.front());
        line.erase(line.begin());
    }
    return content;
}

// Makes the backup by means of the library and writes it to the source directory.
void makeBackup(const Data &data, std::size_t bytes, int files) {
    auto *const backup = KVBackupContainerCreateEmpty(nullptr, nullptr);
    backup->loader->version = kKVManifestDataVersion32;
    const auto status = CF::Dictionary::Mutable();
    status.Set(CFSTR("Version"), CFSTR("3.2"));
    const auto manifest = CF::Dictionary::Mutable();
    manifest.Set(CFSTR("IsEncrypted"), kCFBooleanFalse);
    KVBackupContainerSetDictionaries(backup, manifest.get(), status.get(), manifest.get());
    std::mt19937_64 random(1);
    for (int i = 0; i < files; ++i) {
        // Sizes from a half to one and a half of the average.
        const std::size_t average = bytes / static_cast<std::size_t>(files);
        const auto content = makeContent(average / 2 + random() % (average + 1), random);
        const auto file = CF::Adopt(KVFileCreateFromData(content, nullptr));
        const CF::String path("Media/file" + std::to_string(i));
        if (!KVBackupContainerStoreFileForPath(backup, CFSTR("HomeDomain"), path.get(), file.get(),
                                               nullptr)) {
            fail("a file could not be stored");
        }
    }
    KVBackupExportReport report{};
    KVBackupContainerWriteDirectory(backup, CF::String(data.source).get(), nullptr, nullptr,
                                    &report);
    const auto notes = CF::Array::Adopt(report.notes);
    if (CF::Array::Adopt(report.errors).GetCount() > 0 || report.metadataWritten == 0) {
        fail("the backup could not be made");
    }
    CFRelease(backup);
}

enum class Form { Plain, Device };

bool exportTo(KVBackupContainerClass *backup, const CF::String &output, bool zip, Form form) {
    if (form == Form::Plain) {
        return zip ? KVBackupContainerExportToZip(backup, output.get(), {})
                   : KVBackupContainerExportToDirectory(backup, output.get(), {});
    }
    KVBackupWriteOptions options{};
    options.size = sizeof options;
    options.target = zip ? kKVBackupTargetZip : kKVBackupTargetDirectory;
    return KVBackupContainerWrite(backup, output.get(), &options, nullptr) != 0;
}

Seconds timedExport(const Data &data, bool zip, Form form) {
    return measure::InChild([&] {
        CFErrorRef error = nullptr;
        auto *const backup = KVBackupContainerCreateFromDirectory(
            nullptr, CF::String(data.source).get(), KVProgressFunction(), &error);
        if (backup == nullptr) {
            fail("the backup does not open");
        }
        const auto *const name = zip ? ".zip" : "";
        const CF::String output(data.output + name);
        bool finished = false;
        const Seconds seconds =
            measure::Timed([&] { finished = exportTo(backup, output, zip, form); });
        if (!finished) {
            fail("the export failed");
        }
        return seconds;
    });
}

void report(const char *what, const measure::Series &ours, const char *floorName,
            const measure::Series &floor) {
    std::printf("%s: elapsed %.3f s, %s %.3f s, ratio %.2f; processor %.3f s, %.3f s, ratio %.2f\n",
                what, ours.Wall(), floorName, floor.Wall(), ours.Wall() / floor.Wall(),
                ours.Processor(), floor.Processor(), ours.Processor() / floor.Processor());
}

void measureDirectory(const Data &data, Form form) {
    measure::Series ours;
    measure::Series floor;
    const std::string hashed =
        " && find '" + data.source + "' -type f -print0 | xargs -0 sha1sum > /dev/null";
    for (int i = 0; i < kRounds; ++i) {
        ours.Add(timedExport(data, false, form));
        run("diff -rq --exclude='*.plist' --exclude=Manifest.db '" + data.source + "' '" +
            data.output + "' && rm -rf '" + data.output + "'");
        floor.Add(timedCommand("cp -r '" + data.source + "' '" + data.output + "'" +
                               (form == Form::Plain ? hashed : "")));
        run("rm -rf '" + data.output + "'");
    }
    report(form == Form::Plain ? "to a directory" : "to a directory, as devices write it", ours,
           form == Form::Plain ? "cp -r and sha1sum" : "cp -r", floor);
}

void measureZip(const Data &data, long rounds) {
    measure::Series ours;
    measure::Series device;
    measure::Series floor;
    const std::string zip = data.output + ".zip";
    const std::string removal = "ls -l '" + zip + "' && rm '" + zip + "'";
    for (long i = 0; i < rounds; ++i) {
        ours.Add(timedExport(data, true, Form::Plain));
        run(removal);
        device.Add(timedExport(data, true, Form::Device));
        run(removal);
        floor.Add(timedCommand("cd '" + data.source + "' && zip -r -q '" + zip + "' ."));
        run(removal);
    }
    if (rounds > 0) {
        report("to a zip", ours, "zip -r -q", floor);
        report("to a zip, as devices write it", device, "zip -r -q", floor);
    }
}

} // namespace

int main() {
    const std::string directory = measure::DataDirectory();
    const long bytes = measure::NumberFromEnvironment("KELVANE_BENCH_BYTES", 2147483648L);
    const long files = measure::NumberFromEnvironment("KELVANE_BENCH_FILES", 10000);
    const std::string source =
        directory + "/export-" + std::to_string(files) + "-" + std::to_string(bytes);
    const Data data{directory, source, directory + "/exported"};
    KelvaneSetTemporaryPath(CF::String(directory + "/export-temporary").get());
    run("rm -rf '" + data.output + "' '" + data.output + ".zip'");
    struct stat status {};
    if (::stat((source + "/Status.plist").c_str(), &status) != 0) {
        makeBackup(data, static_cast<std::size_t>(bytes), static_cast<int>(files));
    }
    measureDirectory(data, Form::Plain);
    measureDirectory(data, Form::Device);
    measureZip(data, measure::NumberFromEnvironment("KELVANE_BENCH_ZIP_ROUNDS", 3));
    run("rm -rf '" + directory + "/export-temporary'");
    return 0;
}
