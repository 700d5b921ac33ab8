#include "Commands.hpp"
#include "Diagnostics.hpp"
#include "EditScript.hpp"
#include "Editor.hpp"
#include "ExitStatus.hpp"
#include "InPlace.hpp"

#include <algorithm>
#include <stdexcept>

namespace tool {

namespace {

// Every operation, in order. Scripts are read before the backup is opened, which may take long.
std::vector<Operation> expand(const std::vector<EditStep> &steps) {
    std::vector<Operation> operations;
    for (const EditStep &step : steps) {
        if (const auto *script = std::get_if<EditScriptFile>(&step)) {
            const std::vector<Operation> read = ReadScript(script->path);
            operations.insert(operations.end(), read.begin(), read.end());
        } else {
            operations.push_back(std::get<Operation>(step));
        }
    }
    return operations;
}

// It can be read once.
void requireOneUseOfStandardInput(const BackupOptions &backup, const std::vector<EditStep> &steps) {
    const auto uses = std::ranges::count_if(steps, [](const EditStep &step) {
        const auto *script = std::get_if<EditScriptFile>(&step);
        return script != nullptr && script->path == "-";
    });
    if (uses + (backup.passwordFile == "-" ? 1 : 0) > 1) {
        throw Failure("Standard input cannot be read twice").WithStatus(kUsage);
    }
}

void apply(Editor &editor, const Operation &operation) {
    try {
        editor.Apply(operation);
    } catch (const Failure &failure) {
        throw failure.Within(ToText(operation));
    } catch (const CF::Error &error) {
        throw Failure(error).Within(ToText(operation));
    } catch (const std::runtime_error &error) {
        throw Failure(error.what()).Within(ToText(operation));
    }
}

} // namespace

namespace {

void applyAll(const Container &container, const std::vector<Operation> &operations) {
    Editor editor(container);
    for (const Operation &operation : operations) {
        apply(editor, operation);
    }
    PrintMessage(std::to_string(operations.size()) +
                 (operations.size() == 1 ? " operation done" : " operations done"));
}

} // namespace

int RunEdit(const BackupOptions &backup, const EditOptions &options) {
    requireOneUseOfStandardInput(backup, options.steps);
    if (options.inPlace) {
        RequireChangeable(backup);
    } else {
        CheckBackupOutput(options.output, backup);
    }
    const std::vector<Operation> operations = expand(options.steps);
    if (options.inPlace) {
        RecoverBackup(backup);
    }
    const Container container = OpenBackup(backup);
    WarnOfUnreadChanges(container);
    applyAll(container, operations);
    return options.inPlace ? SaveInPlace(container, backup)
                           : WriteBackup(container, options.output);
}

} // namespace tool
