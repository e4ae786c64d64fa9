#include "output.h"

#include <cstdio>
#include <iostream>

#include "platform.h"

namespace kvlcli {

int exitClass(int rc) {
    switch (rc) {
        case KVL_OK:
            return kExitOk;
        case ECI_ERR_TRANSACTION_ABEND:
        case ECI_ERR_UNKNOWN_SERVER:
        case ECI_ERR_SECURITY_ERROR:
        case ECI_ERR_ROLLEDBACK:
        case ECI_ERR_LUW_TOKEN:
        case ECI_ERR_NO_ORIS:
        case ECI_ERR_ORIS_DIED:
        case ECI_ERR_REQUEST_TIMEOUT:
        case ECI_ERR_RESPONSE_TIMEOUT:
        case ECI_ERR_CONTAINER_NOTFOUND:
        case KVL_ERR_NO_SYSTEMS:
            return kExitProgram;
        case KVL_ERR_LOSTGWCON:
        case KVL_ERR_CONNECTFAILED:
        case KVL_ERR_BADHOST:
        case KVL_ERR_CONNECTTIMEOUT:
        case KVL_ERR_GWTOK_CLOSED:
        case KVL_ERR_GATEWAY_CLOSED:
        case KVL_ERR_WORK_WAS_REFUSED:
        case KVL_ERR_GATEWAY_EXCEPTION:
        case KVL_ERR_GATEWAY_BACK_LEVEL:
        case KVL_ERR_INVALID_REQUEST_TYPE:
        case ECI_ERR_NO_SESSIONS:
        case ECI_ERR_MAX_SESSIONS:
        case ECI_ERR_MAX_SYSTEMS:
            return kExitConnection;
        case KVL_CPP_ERR_BADFIELD:
        case KVL_ERR_BADPORT:
        case KVL_ERR_APPLIDTOOLONG:
        case KVL_ERR_INVALIDTIMEOUTPARM:
        case KVL_ERR_TRACELEVEL:
        case KVL_ERR_TRACEFILE:
        case ECI_ERR_INVALID_NAME:
        case ECI_ERR_INVALID_TYPE:
        case ECI_ERR_INVALID_DATA_LENGTH:
        case ECI_ERR_INVALID_DATA_AREA:
            return kExitUsage;
        default:
            break;
    }
    if (rc <= ESI_ERR_USERID_INVALID && rc >= ESI_ERR_MAX_SESSIONS) {
        return rc == ESI_ERR_MAX_SYSTEMS || rc == ESI_ERR_MAX_SESSIONS || rc == ESI_ERR_NO_SESSIONS
                   ? kExitConnection
                   : kExitProgram;
    }
    if (rc <= KVL_EXT_ERR_NOADDRESS && rc >= KVL_EXT_ERR_TLS_IO) return kExitConnection;  // -904, TLS -920..-924
    return kExitOther;
}

std::string toHex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char b : bytes) {
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 15]);
    }
    return out;
}

std::string asText(const std::string& bytes, const std::string& codePage) {
    std::string text = bytes;
    if (!codePage.empty()) {
        std::string error;
        if (auto decoded = decodeText(bytes, codePage, error)) text = *decoded;
    }
    // Valid UTF-8 for JSON: bytes that are not replaced by U+FFFD.
    return Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace)).get<std::string>();
}

namespace {

char printable(const std::string& oneByte, const std::string& codePage) {
    std::string shown = oneByte;
    if (!codePage.empty()) {
        std::string error;
        auto decoded = decodeText(oneByte, codePage, error);
        shown = decoded ? *decoded : std::string();
    }
    if (shown.size() == 1 && shown[0] >= 0x20 && shown[0] < 0x7f) return shown[0];
    return '.';
}

}  // namespace

std::string hexDump(const std::string& bytes, const std::string& codePage) {
    std::string out;
    char line[96];
    for (size_t off = 0; off < bytes.size(); off += 16) {
        std::snprintf(line, sizeof line, "%08zx  ", off);
        out += line;
        std::string text;
        for (size_t i = 0; i < 16; ++i) {
            if (off + i < bytes.size()) {
                std::snprintf(line, sizeof line, "%02x ", static_cast<unsigned char>(bytes[off + i]));
                out += line;
                text.push_back(printable(bytes.substr(off + i, 1), codePage));
            } else {
                out += "   ";
            }
            if (i == 7) out += " ";
        }
        out += " |" + text + "|\n";
    }
    return out;
}

void printReply(const std::string& program, const kvl::Reply& reply, const std::string& codePage) {
    std::cout << program << ": rc 0 (ECI_NO_ERROR), " << reply.data.size() << " bytes";
    if (!reply.abend.empty()) std::cout << ", abend " << reply.abend;
    std::cout << "\n" << hexDump(kvl::to_string(reply.data), codePage);
}

Json replyJson(const std::string& program, const kvl::Reply& reply, const std::string& codePage) {
    std::string bytes = kvl::to_string(reply.data);
    return Json{{"program", program}, {"rc", 0},         {"name", "ECI_NO_ERROR"},
                {"abend", reply.abend}, {"length", bytes.size()}, {"hex", toHex(bytes)},
                {"text", asText(reply.text(), codePage)}};
}

void printContainers(const kvl::Channel& channel, const std::string& codePage) {
    std::printf("channel %s\n%-16s  %-4s  %6s  %8s  %s\n", channel.name().c_str(), "CONTAINER", "TYPE", "CCSID",
                "LENGTH", "DATA");
    for (const kvl::ContainerInfo& c : channel.containers()) {
        std::string data = channel.text(c.name);
        bool text = c.type == kvl::ContainerType::character;
        std::string shown = text ? asText(data, codePage) : toHex(data);
        if (shown.size() > 48) shown = shown.substr(0, 45) + "...";
        std::printf("%-16s  %-4s  %6d  %8llu  %s\n", c.name.c_str(), text ? "CHAR" : "BIT", c.ccsid,
                    static_cast<unsigned long long>(c.size), shown.c_str());
    }
}

Json containersJson(const kvl::Channel& channel, const std::string& codePage) {
    Json list = Json::array();
    for (const kvl::ContainerInfo& c : channel.containers()) {
        std::string data = channel.text(c.name);
        bool text = c.type == kvl::ContainerType::character;
        Json item{{"name", c.name}, {"type", text ? "CHAR" : "BIT"}, {"ccsid", c.ccsid}, {"length", c.size},
                  {"hex", toHex(data)}};
        if (text) item["text"] = asText(data, codePage);
        list.push_back(item);
    }
    return Json{{"channel", channel.name()}, {"containers", list}};
}

int reportError(const std::string& what, const kvl::Error& e, bool json, Json extra) {
    int code = exitClass(e.rc());
    if (json) {
        Json out = std::move(extra);
        out["rc"] = e.rc();
        out["name"] = e.name();
        if (!e.abend().empty()) out["abend"] = e.abend();
        if (!e.detail().empty()) out["detail"] = e.detail();
        out["exit"] = code;
        std::cout << out.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
    } else {
        std::cerr << "kvl: " << what << ": " << e.what() << std::endl;
    }
    return code;
}

}  // namespace kvlcli
