#include "CommandLine.hpp"

#include "Diagnostics.hpp"
#include "ExitStatus.hpp"
#include "Kelvane.h"
#include "Output.hpp"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <sstream>
#include <string>

namespace tool {

namespace {

constexpr const char *kFooter =
    "BACKUP is a backup directory or a zip of one. The password of an encrypted backup is read\n"
    "from --password-file, else asked on the terminal.\n"
    "Exit status: 0 done, 1 something failed, 2 wrong usage, 3 password missing, wrong, or given\n"
    "for a plain backup.";

class Parser {
  public:
    Parser() {
        app_.set_version_flag("--version", std::string("kelvane ") + KELVANE_VERSION_STRING);
        app_.require_subcommand(1);
        app_.footer(kFooter);
        const auto formatter = app_.get_formatter();
        formatter->column_width(34);
        for (const auto &[ours, theirs] :
             {std::pair("COMMAND", "SUBCOMMAND"), std::pair("Commands", "Subcommands"),
              std::pair("Arguments", "Positionals"), std::pair("", "TEXT"),
              std::pair("", "REQUIRED")}) {
            formatter->label(theirs, ours);
        }
        addInfo();
        addList();
        addCat();
        addExtract();
        addVerify();
        addExport();
        addDecrypt();
        addEdit();
        addRecover();
        addCSV();
    }

    CommandLine Parse(int argc, char **argv) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::Success &stop) {
            std::exit(showHelp(stop));
        } catch (const CLI::ParseError &error) {
            PrintMessage(error.what());
            PrintMessage("see 'kelvane --help' and 'kelvane COMMAND --help'");
            std::exit(kUsage);
        }
        return result_;
    }

  private:
    // Or the version.
    int showHelp(const CLI::Success &stop) {
        std::ostringstream text;
        app_.exit(stop, text, text);
        try {
            Print(text.str());
            FinishOutput();
            return kDone;
        } catch (const Failure &failure) {
            failure.Print();
            return failure.Status();
        }
    }

    // An empty name is a variable of a script that was not set, not a wish for the default.
    static std::string requireText(const std::string &text) {
        return text.empty() ? "the name is empty" : std::string();
    }

    CLI::App *addCommand(const char *name, const char *description,
                         const char *backup = "Backup directory or zip") {
        CLI::App *command = app_.add_subcommand(name, description);
        command->group("Commands");
        command->footer(kFooter);
        command->add_option("BACKUP", result_.backup.backup, backup)->required();
        command
            ->add_option("--password-file", result_.backup.passwordFile,
                         "Read the password from the file's first line; - is standard input")
            ->type_name("FILE")
            ->check(&requireText);
        command
            ->add_option("--temp", result_.backup.temporaryParent,
                         "Keep temporary files below DIR instead of $TMPDIR")
            ->type_name("DIR")
            ->check(&requireText);
        command->add_flag("--follow-links", result_.backup.followLinks,
                          "Follow symbolic links in the backup directory, wherever they lead");
        command->add_flag("-v,--verbose", result_.verbosity, "Show the log; -vv shows all of it");
        return command;
    }

    void addDomainAndPath(CLI::App *command, std::optional<std::string> &domain,
                          std::string &path) {
        // A domain that is given and empty must not read as none, which means all of them.
        command->add_option_function<std::string>(
            "DOMAIN", [&domain](const std::string &text) { domain = text; },
            "Domain of the backup");
        command->add_option("PATH", path, "Path within the domain; \"\" is its root");
    }

    void addInfo() {
        CLI::App *command = addCommand("info", "Say what device and state a backup is of");
        command->add_flag("--json", info_.json, "Print one JSON object");
        command->callback([this] { result_.command = info_; });
    }

    void addList() {
        CLI::App *command = addCommand("ls", "List the domains, or what a directory of one holds");
        addDomainAndPath(command, list_.domain, list_.path);
        command->add_flag("-R,--recursive", list_.recursive,
                          "Everything at PATH and below it; without DOMAIN, of every domain");
        command->add_flag("-l,--long", list_.detailed, "Mode, owner, size and time too");
        command
            ->add_flag("--all", list_.all, "Every entry of every domain, in the manifest's order")
            ->excludes("DOMAIN");
        command->add_flag("--json", list_.json, "One JSON object a line");
        command->callback([this] { result_.command = list_; });
    }

    void addCat() {
        CLI::App *command = addCommand("cat", "Write a file's plaintext to standard output");
        command->add_option("DOMAIN", cat_.domain, "Domain of the backup")->required();
        command->add_option("PATH", cat_.path, "Path within the domain")->required();
        command->callback([this] { result_.command = cat_; });
    }

    void addExtract() {
        CLI::App *command =
            addCommand("extract", "Copy files out as plaintext, to DIR/DOMAIN/PATH");
        addDomainAndPath(command, extract_.domain, extract_.path);
        command->add_option("-o,--output", extract_.output, "Where to write; made when missing")
            ->required()
            ->type_name("DIR");
        command->add_flag("--force", extract_.force, "Replace files and links that exist");
        command->callback([this] { result_.command = extract_; });
    }

    void addVerify() {
        CLI::App *command = addCommand("verify", "Read every file and say what is wrong");
        command->add_flag("--json", verify_.json,
                          "One JSON object a line: the problems, and last a summary");
        command->callback([this] { result_.command = verify_; });
    }

    CLI::Option *addBackupOutput(CLI::App *command, BackupOutputOptions &options) {
        CLI::Option *output =
            command
                ->add_option("OUT", options.output, "New directory, or a zip when it ends in .zip")
                ->check(&requireText);
        command->add_flag("--zip", options.zip, "Write a zip whatever its name");
        command->add_flag("--keep-unlisted", options.keepUnlisted,
                          "Take along files of the backup that its manifest does not name");
        return output;
    }

    void addForm(CLI::App *command, BackupOutputOptions &options) {
        command
            ->add_option_function<std::string>(
                "--form",
                [&options](const std::string &form) { options.legacy = form == "legacy"; },
                "device (default): as devices write it, unchanged rows as they are; legacy: as"
                " this program's first version wrote it")
            ->type_name("FORM")
            ->check(CLI::IsMember({"device", "legacy"}));
    }

    void addDecrypt() {
        CLI::App *command = addCommand("decrypt", "Write an encrypted backup anew as a plain one");
        addBackupOutput(command, decrypt_.output)->required();
        command
            ->add_option("--domain", decrypt_.domains,
                         "Only this domain; may be given several times")
            ->type_name("DOMAIN")
            ->allow_extra_args(false);
        command->callback([this] { result_.command = decrypt_; });
    }

    void addExport() {
        CLI::App *command = addCommand("export", "Write the whole backup anew");
        addBackupOutput(command, export_.output)->required();
        addForm(command, export_.output);
        command->callback([this] { result_.command = export_; });
    }

    // The option's words become one more step, in the order of the command line.
    void addOperation(CLI::App *command, const std::string &name, const char *words, int count,
                      const char *description) {
        const auto add = [this, name](const CLI::results_t &results) {
            std::vector<std::string> operation{name};
            operation.insert(operation.end(), results.begin(), results.end());
            edit_.steps.emplace_back(ParseOperation(operation));
            return true;
        };
        command->add_option("--" + name, add, description)
            ->type_name(words)
            ->type_size(count)
            ->expected(1)
            ->allow_extra_args(false)
            ->trigger_on_parse();
    }

    void addEdit() {
        CLI::App *command =
            addCommand("edit", "Write the backup anew with changes, made in the order given");
        CLI::Option *output = addBackupOutput(command, edit_.output);
        addForm(command, edit_.output);
        command
            ->add_flag("--in-place", edit_.inPlace,
                       "Change BACKUP itself, a directory, instead of writing OUT")
            ->excludes(output)
            ->excludes("--zip")
            ->excludes("--form")
            ->excludes("--keep-unlisted");
        addOperation(command, "put", "DOMAIN PATH FILE", 3,
                     "Store FILE there; a file that is there keeps its attributes and class");
        addOperation(command, "mkdir", "DOMAIN PATH", 2, "Make a directory and those above it");
        addOperation(command, "link", "DOMAIN PATH TARGET", 3, "Make or replace a symbolic link");
        addOperation(command, "rm", "DOMAIN PATH", 2,
                     "Remove what is there and below; \"\" drops the domain");
        const auto addScript = [this](const CLI::results_t &results) {
            edit_.steps.emplace_back(EditScriptFile{results.front()});
            return true;
        };
        command
            ->add_option("--script", addScript,
                         "Operations from FILE, one a line, quoted as in a shell: put, mkdir,"
                         " link, rm; - is standard input")
            ->type_name("FILE")
            ->expected(1)
            ->allow_extra_args(false)
            ->check(&requireText)
            ->trigger_on_parse();
        command->callback([this, output] {
            if (!edit_.inPlace && output->empty()) {
                throw CLI::RequiredError("OUT or --in-place");
            }
            result_.command = edit_;
        });
    }

    void addRecover() {
        CLI::App *command =
            addCommand("recover", "Complete or take back a change that 'edit --in-place' began",
                       "Backup directory");
        command->callback([this] { result_.command = RecoverOptions{}; });
    }

    void addCSV() {
        CLI::App *command =
            addCommand("csv", "Print every row of a Manifest.db as a line of CSV",
                       "Backup directory or zip, or a Manifest.db that is not encrypted");
        command->add_option("-o,--output", csv_.output, "Write to FILE instead of standard output")
            ->type_name("FILE")
            ->check(&requireText);
        command->add_flag("--force", csv_.force, "Replace FILE when it exists");
        command->callback([this] { result_.command = csv_; });
    }

    CLI::App app_{"Lists, checks and changes backups of iOS devices, and copies files out of them.",
                  "kelvane"};
    CommandLine result_;
    InfoOptions info_;
    ListOptions list_;
    CatOptions cat_;
    ExtractOptions extract_;
    VerifyOptions verify_;
    ExportOptions export_;
    DecryptOptions decrypt_;
    EditOptions edit_;
    CSVOptions csv_;
};

} // namespace

CommandLine ParseCommandLine(int argc, char **argv) { return Parser().Parse(argc, argv); }

} // namespace tool
