// kelvane: looks into backups of iOS devices and copies files out of them.
#include "CommandLine.hpp"
#include "Diagnostics.hpp"
#include "ExitStatus.hpp"
#include "Interruption.hpp"
#include "OpenBackup.hpp"
#include "Output.hpp"
#include "TemporaryArea.hpp"

#include <exception>

namespace tool {

namespace {

struct RunCommand {
    const Container &container;
    const TemporaryArea &area;

    int operator()(const InfoOptions &options) const { return RunInfo(container, options); }
    int operator()(const ListOptions &options) const { return RunList(container, options); }
    int operator()(const CatOptions &options) const { return RunCat(container, options); }
    int operator()(const ExtractOptions &options) const {
        return RunExtract(container, area, options);
    }
};

int run(const CommandLine &line) {
    ShowLog(line.verbosity);
    const TemporaryArea area(line.backup.temporaryParent);
    const Container container = OpenBackup(line.backup);
    const int status = std::visit(RunCommand{container, area}, line.command);
    FlushOutput();
    return status;
}

} // namespace

} // namespace tool

int main(int argc, char **argv) {
    const tool::CommandLine line = tool::ParseCommandLine(argc, argv);
    tool::Interruption::Start();
    try {
        return tool::run(line);
    } catch (const tool::Failure &failure) {
        failure.Print();
        return failure.Status();
    } catch (const CF::Error &error) {
        tool::PrintError(error);
        return tool::kFailed;
    } catch (const std::exception &exception) {
        tool::PrintMessage(exception.what());
        return tool::kFailed;
    }
}
