#include "Commands.hpp"
#include "Content.hpp"
#include "ExitStatus.hpp"
#include "Output.hpp"

#include <unistd.h>

namespace tool {

int RunCat(const Container &container, const CatOptions &options) {
    const CF::String domain = ArgumentText(options.domain);
    const CF::String path = ArgumentText(options.path);
    const FileReference file = OpenContent(container, domain.get(), path.get());
    ReadContent(file, [](std::span<const std::uint8_t> bytes) {
        WriteAll(STDOUT_FILENO, bytes, "Standard output");
    });
    return kDone;
}

} // namespace tool
