#include "tests/file_server.h"

#include "client/exchange.h"

/// The number at place `index` of a message, the request code being at 0.
static U32 numberAt(std::string message, std::size_t index) {
    message.resize(std::max(message.size(), 4 * index + 4));
    return getNumber(&message[4 * index]);
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
    if (volume.fault.code == code && --volume.fault.nth == 0)
        return reply(volume.fault.result);
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

void serveFiles(ScriptedServer& server, Volume& volume, ScriptedServer::Host host) {
    const auto handler = [&volume](const std::string& bytes) { return answer(volume, bytes); };
    for (const U32 code : {1U, 2U, 3U, 4U, 7U, 9U, 10U, 11U, 26U, 32U, 36U, 39U, 47U, 48U})
        server.on(code, handler, host);
}
