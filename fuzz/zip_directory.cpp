// The directory of an archive, written anew. What comes out holds the records that were to
// stay, byte for byte, and rewriting that once more changes nothing.
#include "container/ZipDirectory.hpp"
#include "fuzz/Input.hpp"
#include "fuzz/Workplace.hpp"

#include <minizip/unzip.h>

#include <iterator>
#include <optional>

namespace {

using Fuzz::Require;
using Octets = std::vector<std::uint8_t>;
using Names = std::multiset<std::string>;

constexpr std::size_t kEndSize = 22;

// No value when the directory is refused.
std::optional<Octets> Rewrite(const Fuzz::Workplace &work, std::span<const std::uint8_t> archive,
                              std::uint64_t start, const std::set<std::string> &without) {
    const std::string path = (work / "out.zip").string();
    boost::filesystem::remove(path);
    Kelvane::ZipOutput output(path);
    zlib_filefunc64_def functions = output.Functions();
    Require(functions.zopen64_file(functions.opaque, path.c_str(),
                                   ZLIB_FILEFUNC_MODE_CREATE | ZLIB_FILEFUNC_MODE_WRITE) !=
            nullptr);
    output.Write(archive);
    if (!Kelvane::RewriteZipDirectory(output, start, without)) {
        return std::nullopt;
    }
    Require(output.Keep());
    std::ifstream file(path, std::ios::binary);
    return Octets(std::istreambuf_iterator<char>(file), {});
}

// The names, as another reader finds them.
Names NamesIn(const Fuzz::Workplace &work) {
    Names names;
    const unzFile archive = unzOpen((work / "out.zip").c_str());
    Require(archive != nullptr);
    std::string name(65536, '\0');
    for (int status = unzGoToFirstFile(archive); status == UNZ_OK;
         status = unzGoToNextFile(archive)) {
        unz_file_info64 info;
        if (unzGetCurrentFileInfo64(archive, &info, name.data(), name.size(), nullptr, 0, nullptr,
                                    0) == UNZ_OK) {
            names.insert(name.substr(0, info.size_filename));
        }
    }
    unzClose(archive);
    return names;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Fuzz::Input input(bytes, size);
    const auto start = input.Number<std::uint16_t>();
    const std::set<std::string> without = {input.PieceAsText(), input.PieceAsText()};
    const auto archive = input.Rest();
    const Fuzz::Workplace work;
    const auto rewritten = Rewrite(work, archive, start, without);
    if (rewritten && start <= archive.size()) {
        Require(std::equal(archive.begin(), archive.begin() + start, rewritten->begin()));
        // minizip takes an empty archive that begins with its end for none.
        const auto names = rewritten->size() > kEndSize ? NamesIn(work) : Names();
        for (const std::string &name : without) {
            Require(!names.contains(name));
        }
        Require(Rewrite(work, *rewritten, start, {}) == rewritten);
    }
    return 0;
}
