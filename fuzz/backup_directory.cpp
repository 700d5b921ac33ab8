// Builds the directory of a backup from choices, reads all that it holds and writes it out.
// Nothing that lies beside the backup is ever touched.
#include "fuzz/Backup.hpp"
#include "fuzz/DatabaseRows.hpp"
#include "fuzz/Input.hpp"

#include <iterator>

namespace {

using Fuzz::Require;

constexpr std::string_view kOutside = "outside";
constexpr const char *kVersions[] = {"2.4", "3.0", "3.1", "3.2", "3.3"};

std::span<const std::uint8_t> AsBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

// As a device would write it, or any bytes, or missing.
void WriteMetadata(const Fuzz::Workplace &work, const std::string &name, Fuzz::Input &input,
                   const std::string &usual) {
    const std::uint8_t kind = input.Byte();
    if (kind % 16 == 1) {
        work.Write("backup/" + name, input.Piece());
    } else if (kind % 16 != 2) {
        work.Write("backup/" + name,
                   AsBytes("<plist version=\"1.0\"><dict>" + usual + "</dict></plist>"));
    }
}

// Under the file ID of a domain and path, or any name that is one component.
void WriteStoredFile(const Fuzz::Workplace &work, Fuzz::Input &input) {
    const std::uint8_t kind = input.Byte();
    std::string name = input.PieceAsText();
    if (kind % 2 == 0) {
        name = CF::String::Adopt(
                   KVManifestEntryCopyFileIDForPath(CF::String("D").get(), CF::String(name).get()))
                   .GetUTF8();
    }
    if (name.size() < 3 || name.size() > 200 || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos || name.find_first_not_of('.') == std::string::npos) {
        return;
    }
    name = "backup/" + (kind / 2 % 2 == 0 ? name.substr(0, 2) + "/" : "") + name;
    boost::system::error_code ignored;
    if (kind % 8 == 7) {
        boost::filesystem::create_symlink("../outside", work / name, ignored);
    } else if (boost::filesystem::create_directories((work / name).parent_path(), ignored),
               !boost::filesystem::is_directory(work / name, ignored)) {
        work.Write(name, input.Piece());
    }
}

void Build(const Fuzz::Workplace &work, Fuzz::Input &input) {
    const std::size_t version = input.Byte() % std::size(kVersions);
    WriteMetadata(work, "Status.plist", input,
                  std::string("<key>Version</key><string>") + kVersions[version] + "</string>");
    WriteMetadata(work, "Manifest.plist", input, "<key>IsEncrypted</key><false/>");
    WriteMetadata(work, "Info.plist", input, "<key>Device Name</key><string>x</string>");
    for (int left = input.Byte() % 4; left > 0; --left) {
        WriteStoredFile(work, input);
    }
    if (version == 0) {
        work.Write("backup/Manifest.mbdb", input.Rest());
    } else {
        Fuzz::WriteDatabase((work / "backup/Manifest.db").string(), input);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const Fuzz::Workplace work;
    Fuzz::Input input(bytes, size);
    const std::string outside = work.Write("outside", AsBytes(kOutside));
    boost::filesystem::create_directory(work / "backup");
    Build(work, input);
    const auto container = Fuzz::OpenBackup((work / "backup").string());
    if (container) {
        Fuzz::UseBackup(container, work);
    }
    std::ifstream file(outside, std::ios::binary);
    Require(std::string(std::istreambuf_iterator<char>(file), {}) == kOutside);
    for (const auto &entry : boost::filesystem::directory_iterator(work / "")) {
        const std::string name = entry.path().filename().string();
        Require(name == "outside" || name == "backup" || name == "library" || name == "export" ||
                name == "export.zip");
    }
    return 0;
}
