// kelvane: looks into backups of iOS devices, copies files out of them, and changes them.
#include "BackupPlace.hpp"
#include "CommandLine.hpp"
#include "Diagnostics.hpp"
#include "ExitStatus.hpp"
#include "Interruption.hpp"
#include "OpenBackup.hpp"
#include "Output.hpp"
#include "TemporaryArea.hpp"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <unistd.h>

namespace tool {

namespace {

struct RunCommand {
    const BackupOptions &backup;
    const TemporaryArea &area;

    int operator()(const InfoOptions &options) const { return RunInfo(open(), options); }
    int operator()(const ListOptions &options) const { return RunList(open(), options); }
    int operator()(const CatOptions &options) const { return RunCat(open(), area, options); }
    int operator()(const ExtractOptions &options) const {
        return RunExtract(backup, area, options);
    }
    int operator()(const VerifyOptions &options) const { return RunVerify(backup, area, options); }
    int operator()(const ExportOptions &options) const { return RunExport(backup, options); }
    int operator()(const DecryptOptions &options) const { return RunDecrypt(backup, options); }
    int operator()(const EditOptions &options) const { return RunEdit(backup, options); }
    int operator()(const RecoverOptions &) const { return RunRecover(backup); }
    int operator()(const CSVOptions &options) const { return RunCSV(backup, area, options); }

  private:
    Container open() const { return OpenBackup(backup); }
};

// Shows what the library printed however the command ends.
class LibraryOutput {
  public:
    LibraryOutput(const TemporaryArea &area, int verbosity) {
        if (verbosity > 0) {
            CollectLibraryOutput(area.Path() + "/library-output");
        }
    }
    LibraryOutput(const LibraryOutput &) = delete;
    LibraryOutput &operator=(const LibraryOutput &) = delete;
    ~LibraryOutput() { ShowLibraryOutput(); }
};

void requireOutside(const std::string &temporaryParent, const BackupOptions &backup) {
    if (BackupPlace(backup.backup).Holds(temporaryParent)) {
        throw Failure("Temporary files would lie inside the backup, in '" + temporaryParent + "'");
    }
}

int runInArea(const CommandLine &line) {
    ShowLog(line.verbosity);
    requireOutside(TemporaryArea::ParentFor(line.backup.temporaryParent), line.backup);
    const TemporaryArea area(line.backup.temporaryParent);
    const LibraryOutput libraryOutput(area, line.verbosity);
    const int status = std::visit(RunCommand{line.backup, area}, line.command);
    FinishOutput();
    return status;
}

int run(const CommandLine &line) {
    try {
        return runInArea(line);
    } catch (const OutputClosed &failure) {
        Interruption::EndByClosedPipe();
        failure.Print();
        return failure.Status();
    } catch (const Failure &failure) {
        failure.Print();
        return failure.Status();
    } catch (const CF::Error &error) {
        Failure(error).Print();
        return kFailed;
    } catch (const std::bad_alloc &) {
        PrintOutOfMemory();
        return kFailed;
    } catch (const std::exception &exception) {
        PrintMessage(exception.what());
        return kFailed;
    }
}

// Memory may run out where no exception can leave, as in destructors of libraries.
[[noreturn]] void endWithoutMemory() noexcept {
    Interruption::CleanUp();
    const std::exception_ptr cause = std::current_exception();
    try {
        if (cause != nullptr) {
            std::rethrow_exception(cause);
        }
    } catch (const std::bad_alloc &) {
    } catch (...) {
        std::abort();
    }
    PrintOutOfMemory(); // also where there was none for the exception itself
    _exit(kFailed);
}

} // namespace

} // namespace tool

int main(int argc, char **argv) {
    std::set_terminate(&tool::endWithoutMemory);
    tool::StartOutput();
    try {
        const tool::CommandLine line = tool::ParseCommandLine(argc, argv);
        tool::Interruption::Start();
        return tool::run(line);
    } catch (const std::bad_alloc &) {
        tool::PrintOutOfMemory();
        return tool::kFailed;
    } catch (const std::exception &exception) {
        // No thread for signals, as a rule.
        std::fputs("kelvane: ", stderr);
        std::fputs(exception.what(), stderr);
        std::fputs("\n", stderr);
        return tool::kFailed;
    }
}
