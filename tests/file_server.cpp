#include "tests/file_server.h"

#include <gtest/gtest.h>

/// The number at place `index` of a message, the request code being at 0.
static U32 numberAt(const std::string& message, std::size_t index) {
    U32 number = 0;
    for (std::size_t i = 4 * index; i < 4 * index + 4 && i < message.size(); ++i)
        number = number << 8 | static_cast<U8>(message[i]);
    return number;
}

std::string sent(ScriptedServer& server, const std::set<U32>& codes, std::size_t count) {
    std::string text;
    for (const std::string& request : server.requests())
        if (const U32 code = numberAt(request, 0); codes.contains(code)) {
            text += std::to_string(code) + " ";
            for (std::size_t i = 3; i < 3 + count; ++i)
                text += std::to_string(numberAt(request, i)) + " ";
        }
    return text;
}

std::string repository(std::size_t size) {
    std::string bytes = "4321\6";
    for (std::size_t i = bytes.size(); i < size; ++i)
        bytes += static_cast<char>(i * 31 + i / 251);
    return bytes.substr(0, size);
}

static Answer answer(Volume& volume, const std::string& request) {
    const U32 code = numberAt(request, 0);
    for (Fault& fault : volume.faults)
        if (fault.code == code && --fault.nth == 0)
            return reply(fault.result);
    // The 16 GB requests have a high half before the offset.
    const std::size_t i = code == REQUEST_FILE_READ || code == REQUEST_FILE_WRITE ? 3 : 4;
    const std::size_t offset = numberAt(request, i), length = numberAt(request, i + 1);
    std::string none, &file = volume.files.contains(volume.open) ? volume.files[volume.open] : none;
    switch (code) {
    case REQUEST_FILE_CREATE: volume.files[request.substr(16)] = ""; break;
    case REQUEST_FILE_OPEN:
        volume.open = request.substr(16);
        return reply(volume.files.contains(volume.open) ? 0 : 2);
    case REQUEST_GET_MAX_DATA: return reply(0, be32(volume.dataLimit));
    case REQUEST_FILE_GET_VOL_SPACE:
        return reply(0, be32(volume.freeBlocks) + be32(volume.bytesPerBlock));
    case REQUEST_16GB_FILE_GET_EOF:
        return reply(0, be32(static_cast<U32>((file.size() + 15) / 16)));
    case REQUEST_FILE_READ:
    case REQUEST_16GB_FILE_READ:
        return reply(0, file.substr(std::min(offset, file.size()), length));
    case REQUEST_FILE_WRITE:
    case REQUEST_16GB_FILE_WRITE:
        file.resize(std::max(file.size(), offset + length));
        file.replace(offset, length, request.substr(4 * i + 8));
    }
    return reply(0);
}

void serveFiles(ScriptedServer& server, Volume& volume) {
    for (const U32 code : {1U, 2U, 3U, 4U, 7U, 9U, 10U, 11U, 26U, 32U, 36U, 39U, 47U, 48U})
        server.on(code, [&volume](const std::string& bytes) { return answer(volume, bytes); });
}

/// `text` without what it has to begin with.
static std::string behind(const std::string& begin, const std::string& text) {
    return text.starts_with(begin) ? text.substr(begin.size()) : "does not begin well: " + text;
}

CopyScene::CopyScene(std::size_t size) {
    from.files["a.rep"] = repository(size);
    serveFiles(source, from);
    serveFiles(dest, to);
}

Outcome CopyScene::copy(const Arguments& modifiers, const std::string& input) {
    Arguments arguments{"copy", "-p", "secret", "127.0.0.1:a.rep", "127.0.0.2:b.rep"};
    arguments.insert(arguments.begin() + 1, modifiers.begin(), modifiers.end());
    Outcome outcome = runKxadmin(arguments, source.port, input);
    outcome.out = behind(banner + std::string("\nConnected to source server\n\n"
                                              "Connected to destination server\n\n"),
                         outcome.out);
    EXPECT_EQ(outcome.status, 0);
    return outcome;
}

std::string CopyScene::codes() {
    return behind("s12 s28 s9 s25 d12 d28 d9 d25 d10 ", source.codes());
}
