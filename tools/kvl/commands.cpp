#include "commands.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "input.h"
#include "load.h"
#include "output.h"
#include "platform.h"

namespace kvlcli {

namespace {

using Clock = std::chrono::steady_clock;

kvl::Connection connect(const Settings& s) { return kvl::Connection(connectOptions(s)); }

// The password: --password-insecure, else the environment variable, else a prompt
// on the terminal when asked for (or when `required`). Empty when none is given.
std::string resolvePassword(const PasswordSource& p, const std::string& prompt, bool required) {
    if (p.insecureGiven) return p.insecure;
    if (const char* env = std::getenv(p.envName.c_str())) return env;
    if (p.prompt || required) {
        if (auto typed = readSecret(prompt)) return *typed;
        if (required) throw UsageError("no password: set " + p.envName + " or run on a terminal to be asked");
    }
    return {};
}

void print(const Json& j) { std::cout << j.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl; }

std::string commarea(const CallArgs& a) {
    int forms = (a.textGiven ? 1 : 0) + (!a.hex.empty() ? 1 : 0) + (!a.file.empty() ? 1 : 0) + (a.fromStdin ? 1 : 0);
    if (forms > 1) throw UsageError("give the COMMAREA one way only: text, --hex, --file or --stdin");
    if (!a.hex.empty()) return parseHex(a.hex);
    if (!a.file.empty()) return readFile(a.file, 32767);
    if (a.fromStdin) return readStdin(32767);
    return encode(a.text, a.codePage);
}

// An asynchronous call shown step by step: the message qualifier of the request,
// then the collection of its reply.
int callAsyncShown(kvl::Connection& conn, const CallArgs& a, const std::string& data, const Settings& s) {
    EciParms p{};
    auto pad = [](char* field, size_t n, const std::string& v) {
        std::memset(field, ' ', n);
        std::memcpy(field, v.data(), std::min(n, v.size()));
    };
    if (a.program.empty() || a.program.size() > 8) throw UsageError("program name must have 1 to 8 characters");
    if (a.options.server.size() > 8 || a.options.transaction.size() > 4)
        throw UsageError("server at most 8 characters, transaction at most 4");
    size_t size = std::max<size_t>({data.size(), static_cast<size_t>(a.length), static_cast<size_t>(a.replyLength)});
    if (size > 32767) throw UsageError("a COMMAREA holds at most 32767 bytes");
    std::string buffer(size, '\0');
    buffer.replace(0, data.size(), data);
    p.eci_version = 6;
    p.eci_call_type = ECI_ASYNC;
    pad(p.eci_program, 8, a.program);
    pad(p.eci_server_name, 8, a.options.server);
    pad(p.eci_tran_id, 4, a.options.transaction);
    p.eci_commarea = buffer.empty() ? nullptr : buffer.data();
    p.eci_commarea_length = static_cast<short>(size);
    p.commarea_outbound_length = static_cast<short>(data.size());
    p.commarea_inbound_length = static_cast<short>(a.replyLength);
    p.eci_timeout = static_cast<short>(a.options.timeout);
    p.eci_userid_ptr = a.options.user.empty() ? nullptr : a.options.user.c_str();
    p.eci_password_ptr = a.options.password.empty() ? nullptr : a.options.password.c_str();
    int rc = KVL_ECI_Execute(conn.handle(), &p);
    if (rc != KVL_OK) return reportError("send " + a.program, kvl::Error(rc), s.json, Json{{"program", a.program}});
    int qualifier = p.eci_msg_qual;
    if (!s.json) std::cout << "sent " << a.program << " asynchronously, message qualifier " << qualifier << "\n";
    auto start = Clock::now();
    EciParms r{};
    std::string reply(32767, '\0');
    r.eci_version = 6;
    r.eci_call_type = ECI_GET_SPECIFIC_REPLY_WAIT;
    r.eci_msg_qual = qualifier;
    r.eci_commarea = reply.data();
    r.eci_commarea_length = static_cast<short>(reply.size());
    kvl::detail::forget_error_text(conn.handle());
    rc = KVL_ECI_Execute(conn.handle(), &r);
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    std::string abend(r.eci_abend, strnlen(r.eci_abend, 4));
    while (!abend.empty() && abend.back() == ' ') abend.pop_back();
    if (rc != KVL_OK)
        return reportError("collect " + a.program, kvl::Error(rc, kvl::detail::last_error_text(), abend), s.json,
                           Json{{"program", a.program}, {"msgQual", qualifier}});
    kvl::Reply out;
    out.data.assign(reply.begin(), reply.begin() + std::max<short>(r.commarea_inbound_length, 0));
    out.abend = abend;
    if (s.json) {
        Json j = replyJson(a.program, out, a.codePage);
        j["msgQual"] = qualifier;
        j["collectMs"] = ms;
        print(j);
    } else {
        std::cout << "collected the reply of message qualifier " << qualifier << " after " << ms << " ms\n";
        printReply(a.program, out, a.codePage);
    }
    return kExitOk;
}

int callScript(kvl::Connection& conn, const CallArgs& a, const Settings& s) {
    std::string text = a.script == "-" ? readStdin(16u << 20) : readFile(a.script, 16u << 20);
    std::vector<ScriptCall> calls = parseScript(text, a.codePage);
    std::optional<kvl::Unit> unit;
    if (a.begin) unit.emplace(conn.begin_unit(a.options));
    Json results = Json::array();
    for (const ScriptCall& c : calls) {
        try {
            kvl::CallOptions o = a.options;
            o.commarea_length = a.length;
            o.reply_length = a.replyLength;
            kvl::Reply r = unit ? unit->call(c.program, c.data, o) : conn.call(c.program, c.data, o);
            if (s.json)
                results.push_back(replyJson(c.program, r, a.codePage));
            else
                printReply(c.program, r, a.codePage);
        } catch (const kvl::Error& e) {
            Json failed{{"program", c.program}, {"line", c.line}, {"rc", e.rc()}, {"name", e.name()},
                        {"abend", e.abend()}};
            results.push_back(failed);
            if (s.json) print(Json{{"calls", results}, {"unit", unit ? "backed out" : "none"}, {"rc", e.rc()},
                                   {"exit", exitClass(e.rc())}});
            else
                std::cerr << "kvl: line " << c.line << ": " << c.program << ": " << e.what()
                          << (unit ? "; the unit of work is backed out" : "") << std::endl;
            return exitClass(e.rc());
        }
    }
    std::string outcome = "none";
    if (unit) {
        if (a.commit) {
            unit->commit();
            outcome = "committed";
        } else {
            unit->backout();
            outcome = "backed out";
            if (!a.backout) std::cerr << "kvl: no --commit given: the unit of work is backed out" << std::endl;
        }
    }
    if (s.json)
        print(Json{{"calls", results}, {"unit", outcome}, {"rc", 0}});
    else if (unit)
        std::cout << "unit of work " << outcome << "\n";
    return kExitOk;
}

int callChannel(kvl::Connection& conn, const CallArgs& a, const Settings& s) {
    kvl::Channel channel(a.channel.empty() ? "KVLCHANNEL" : a.channel);
    for (const std::string& desc : a.containers) {
        ContainerArg c = parseContainer(desc, a.codePage);
        if (c.type == kvl::ContainerType::character)
            channel.set_text(c.name, c.data, c.ccsid);
        else
            channel.set_bytes(c.name, kvl::to_bytes(c.data));
    }
    if (a.async) {
        auto future = conn.call_async(a.program, std::move(channel), a.options);
        kvl::Channel back = future.get();
        if (s.json)
            print(Json{{"program", a.program}, {"rc", 0}, {"name", "ECI_NO_ERROR"}, {"reply", containersJson(back, a.codePage)}});
        else
            printContainers(back, a.codePage);
        return kExitOk;
    }
    conn.call(a.program, channel, a.options);
    if (s.json)
        print(Json{{"program", a.program}, {"rc", 0}, {"name", "ECI_NO_ERROR"}, {"reply", containersJson(channel, a.codePage)}});
    else
        printContainers(channel, a.codePage);
    return kExitOk;
}

}  // namespace

kvl::ConnectOptions connectOptions(const Settings& s) {
    using std::chrono::milliseconds;
    bool tlsSettings = !s.caFile.empty() || !s.certFile.empty() || !s.keyFile.empty() || !s.serverName.empty() || s.insecure;
    if (tlsSettings && !s.tls) throw UsageError("--ca, --cert, --key, --server-name and --insecure need --tls");
    if (s.certFile.empty() != s.keyFile.empty()) throw UsageError("--cert and --key go together");
    kvl::ConnectOptions o;
    o.host = s.host;
    o.port = s.port;
    o.applid = s.applid;
    o.qualifier = s.qualifier;
    o.connect_timeout = milliseconds(static_cast<long long>(s.connectTimeout * 1000 + 0.5));
    o.deadline = milliseconds(static_cast<long long>(s.deadline * 1000 + 0.5));
    o.tls.enabled = s.tls;
    o.tls.ca_file = s.caFile;
    o.tls.cert_file = s.certFile;
    o.tls.key_file = s.keyFile;
    o.tls.server_name = s.serverName;
    o.tls.verify = !s.insecure;
    return o;
}

void applyTrace(const std::string& desc) {
    if (desc.empty()) return;
    size_t colon = desc.find(':');
    std::string level = desc.substr(0, colon);
    if (level.size() != 1 || level[0] < '0' || level[0] > '5')
        throw UsageError("--trace \"" + desc + "\": LEVEL is 0 to 5, optionally followed by :FILE");
    if (colon != std::string::npos) kvl::trace::set_file(desc.substr(colon + 1));
    kvl::trace::set_level(level[0] - '0');
}

int runCall(const Settings& s, CallArgs a) {
    if (a.script.empty() && a.program.empty()) throw UsageError("call: PROGRAM is required (or --script FILE)");
    if ((a.begin || a.commit || a.backout) && a.script.empty())
        throw UsageError("--begin, --commit and --backout apply to a --script of calls");
    if ((a.commit || a.backout) && !a.begin) throw UsageError("--commit and --backout need --begin");
    if (a.commit && a.backout) throw UsageError("--commit or --backout, not both");
    if (a.repeat < 1 || a.concurrency < 1) throw UsageError("--repeat and --concurrency must be at least 1");
    if (a.stats && (!a.script.empty() || !a.channel.empty() || !a.containers.empty() || a.async))
        throw UsageError("--stats goes with a COMMAREA call or --repeat");
    if (!a.options.user.empty()) a.options.password = resolvePassword(a.password, "Password for " + a.options.user + ": ", false);
    a.options.commarea_length = a.length;
    a.options.reply_length = a.replyLength;
    std::string data = a.script.empty() && a.containers.empty() && a.channel.empty() ? commarea(a) : std::string();

    kvl::Connection conn = connect(s);
    try {
        if (!a.script.empty()) return callScript(conn, a, s);
        if (!a.channel.empty() || !a.containers.empty()) return callChannel(conn, a, s);
        if (a.repeat > 1 || a.concurrency > 1) return runLoad(conn, a, data, s.json);
        if (a.async) return callAsyncShown(conn, a, data, s);
        kvl::Reply r = conn.call(a.program, data, a.options);
        if (s.json) {
            Json j = replyJson(a.program, r, a.codePage);
            if (a.stats) j["statistics"] = statisticsJson(conn.statistics());
            print(j);
        } else {
            printReply(a.program, r, a.codePage);
            if (a.stats) printStatistics(conn.statistics());
        }
        return kExitOk;
    } catch (const kvl::Error& e) {
        return reportError(a.program.empty() ? "call" : a.program, e, s.json, Json{{"program", a.program}});
    }
}

int runSystems(const Settings& s) {
    kvl::Connection conn = connect(s);
    auto list = conn.systems();
    if (s.json) {
        Json j = Json::array();
        for (const auto& sys : list) j.push_back(Json{{"name", sys.name}, {"description", sys.description}});
        print(Json{{"systems", j}});
    } else {
        for (const auto& sys : list) std::printf("%-8s  %s\n", sys.name.c_str(), sys.description.c_str());
    }
    return kExitOk;
}

namespace {

Json detailsJson(const kvl::SecurityDetails& d) {
    auto time = [](const std::optional<std::tm>& t) -> Json {
        if (!t) return nullptr;
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &*t);
        return text;
    };
    return Json{{"lastVerified", time(d.last_verified)}, {"expiry", time(d.expiry)},
                {"lastAccess", time(d.last_access)}, {"invalidAttempts", d.invalid_attempts}};
}

void printDetails(const std::string& what, const std::string& user, const kvl::SecurityDetails& d) {
    Json j = detailsJson(d);
    std::cout << what << " for " << user << "\n";
    for (auto& [key, value] : j.items())
        std::cout << "  " << key << ": " << (value.is_null() ? "not set" : value.is_string() ? value.get<std::string>() : value.dump()) << "\n";
}

}  // namespace

int runVerify(const Settings& s, const std::string& user, const std::string& server, const PasswordSource& p) {
    std::string password = resolvePassword(p, "Password for " + user + ": ", true);
    kvl::Connection conn = connect(s);
    try {
        auto d = conn.verify_password(user, password, server);
        if (s.json)
            print(Json{{"user", user}, {"rc", 0}, {"details", detailsJson(d)}});
        else
            printDetails("password verified", user, d);
        return kExitOk;
    } catch (const kvl::Error& e) {
        return reportError("verify " + user, e, s.json, Json{{"user", user}});
    }
}

int runPasswd(const Settings& s, const std::string& user, const std::string& server, const PasswordSource& p) {
    std::string old = resolvePassword(p, "Current password for " + user + ": ", true);
    std::string fresh;
    if (const char* env = std::getenv("KVL_NEW_PASSWORD")) {
        fresh = env;
    } else {
        auto first = readSecret("New password for " + user + ": ");
        auto again = first ? readSecret("New password again: ") : std::nullopt;
        if (!first || !again) throw UsageError("no new password: set KVL_NEW_PASSWORD or run on a terminal");
        if (*first != *again) throw UsageError("the new passwords differ");
        fresh = *first;
    }
    kvl::Connection conn = connect(s);
    try {
        auto d = conn.change_password(user, old, fresh, server);
        if (s.json)
            print(Json{{"user", user}, {"rc", 0}, {"details", detailsJson(d)}});
        else
            printDetails("password changed", user, d);
        return kExitOk;
    } catch (const kvl::Error& e) {
        return reportError("passwd " + user, e, s.json, Json{{"user", user}});
    }
}

int runPing(const Settings& s) {
    auto start = Clock::now();
    {
        kvl::Connection conn = connect(s);
        conn.close();
    }
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    if (s.json)
        print(Json{{"host", s.host}, {"port", s.port}, {"rc", 0}, {"ms", ms}});
    else
        std::printf("Gateway %s:%d answered: open, handshake and close in %.2f ms\n", s.host.c_str(), s.port, ms);
    return kExitOk;
}

int runVersion(const Settings& s) {
    if (s.json)
        print(Json{{"api", kvl::api_version()}, {"library", kvl::dll_version()}});
    else
        std::cout << "kvl, library API " << kvl::api_version() << ", build " << kvl::dll_version() << "\n";
    return kExitOk;
}

}  // namespace kvlcli
