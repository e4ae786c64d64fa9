/** @file kvlclient.hpp
 * kvlclient for C++20: connections, program calls, units of work, asynchronous
 * calls, channels and containers, password checks, the server list, versions and
 * the trace, as RAII types and exceptions.
 *
 * Header-only, on the exported C functions alone, so it works the same with
 * libkvlclient.so and with KVLCLIENT.dll. Every failure of the library becomes a
 * kvl::Error carrying the return code and its name; code that prefers no
 * exceptions uses the overloads taking a std::error_code (category
 * kvl::category()).
 *
 * Thread safety: a Connection may be used by many threads at once (calls, units
 * of work on different threads, asynchronous calls), but close(), purge() and
 * the destructor must not race with calls made on other threads. A Channel is a
 * value: one thread at a time, like a std::string.
 *
 * Define KVLCLIENT_HPP_WITH_EXT to 1 before including this header to use the
 * extension functions of kvl_ext.h (connection options, error texts, names of the
 * extension codes); 0 keeps to the base library.
 */
#ifndef KVLCLIENT_HPP
#define KVLCLIENT_HPP

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvl_esi.h"
#include "kvl_ext.h"
#include "kvlclient.h"

#ifndef KVLCLIENT_HPP_WITH_EXT
#define KVLCLIENT_HPP_WITH_EXT 0
#endif

/** A field handed to the C++ interface that does not fit its place (a program
 * name of 9 characters, an empty program name, a COMMAREA above 32767 bytes). The
 * call is refused before anything is sent. */
#define KVL_CPP_ERR_BADFIELD (-950)

namespace kvl {

/** Bytes of a COMMAREA or a container. */
using Bytes = std::vector<unsigned char>;

/** The bytes of a text, unchanged (no code page conversion). */
inline Bytes to_bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }
/** The bytes as a text, unchanged. */
inline std::string to_string(std::span<const unsigned char> bytes) { return std::string(bytes.begin(), bytes.end()); }

/** The name of any return code: "ECI_ERR_TRANSACTION_ABEND" for -7, and so on. */
inline std::string rc_name(int rc) {
    if (rc == KVL_CPP_ERR_BADFIELD) return "KVL_CPP_ERR_BADFIELD";
#if KVLCLIENT_HPP_WITH_EXT
    if (const char* name = KVL_EXT_getRcName(rc)) return name;
#endif
    char buffer[KVL_RC_STRING_LENGTH + 1] = {};
    KVL_getRcString(rc, buffer);
    buffer[KVL_RC_STRING_LENGTH] = '\0';
    return buffer;
}

/** The error category of the library's return codes; message() is the code's name. */
class ErrorCategory final : public std::error_category {
public:
    const char* name() const noexcept override { return "kvlclient"; }
    std::string message(int rc) const override { return rc_name(rc); }
};

/** The one instance of ErrorCategory. */
inline const std::error_category& category() noexcept {
    static const ErrorCategory instance;
    return instance;
}

/** A return code as a std::error_code (0 is no error). */
inline std::error_code make_error_code(int rc) noexcept { return {rc, category()}; }

/** A failure of the library: the return code, its name, the abend code of a
 * program that ended abnormally, and the library's own explanation when the
 * extension functions are in use. what() reads "NAME (rc)" and then the details. */
class Error : public std::system_error {
public:
    explicit Error(int rc, std::string detail = {}, std::string abend = {})
        : std::system_error(make_error_code(rc)), rc_(rc), name_(rc_name(rc)), text_(describe(rc, detail, abend)),
          detail_(std::move(detail)), abend_(std::move(abend)) {}

    /** "NAME (rc)", the abend code and the details. */
    const char* what() const noexcept override { return text_.c_str(); }

    /** The library's return code. */
    int rc() const noexcept { return rc_; }
    /** Its name, e.g. "KVL_ERR_CONNECTFAILED". */
    const std::string& name() const noexcept { return name_; }
    /** What else is known: the reason the library gave, or the field the wrapper refused. */
    const std::string& detail() const noexcept { return detail_; }
    /** The abend code of the program (4 characters, blanks removed), or empty. */
    const std::string& abend() const noexcept { return abend_; }

private:
    static std::string describe(int rc, const std::string& detail, const std::string& abend) {
        std::string text = rc_name(rc) + " (" + std::to_string(rc) + ")";
        if (!abend.empty()) text += ", abend " + abend;
        if (!detail.empty()) text += ": " + detail;
        return text;
    }
    int rc_;
    std::string name_;
    std::string text_;
    std::string detail_;
    std::string abend_;
};

namespace detail {

/** The library's explanation of the calling thread's last failure, when available. */
inline std::string last_error_text() {
#if KVLCLIENT_HPP_WITH_EXT
    char buffer[512] = {};
    if (KVL_EXT_getLastErrorText(buffer, sizeof buffer) == KVL_OK) return buffer;
#endif
    return {};
}

[[noreturn]] inline void fail(int rc, std::string detail = {}, std::string abend = {}) {
    if (detail.empty()) detail = last_error_text();
    throw Error(rc, std::move(detail), std::move(abend));
}

inline void check(int rc) {
    if (rc != KVL_OK) fail(rc);
}

[[noreturn]] inline void bad_field(const char* what, std::string_view value, std::size_t limit) {
    fail(KVL_CPP_ERR_BADFIELD, std::string(what) + " \"" + std::string(value) + "\" must have 1 to " +
                                   std::to_string(limit) + " characters");
}

/** Copies value into a fixed-width field padded with blanks; refuses what does not fit.
 * An empty value is allowed only where `optional` says so. */
template <std::size_t N>
void put_field(char (&field)[N], std::string_view value, const char* what, bool optional = true) {
    if (value.size() > N || (!optional && value.empty())) bad_field(what, value, N);
    std::memset(field, ' ', N);
    if (!value.empty()) std::memcpy(field, value.data(), value.size());
}

inline std::string trim_field(const char* field, std::size_t n) {
    std::string text(field, strnlen(field, n));
    while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
    return text;
}

inline void check_name(std::string_view name, const char* what) {
    if (name.empty() || name.size() > ECI_CHANNEL_NAME_LENGTH) bad_field(what, name, ECI_CHANNEL_NAME_LENGTH);
}

}  // namespace detail

/** How a program is called. Every field is optional; names are blank-padded and
 * refused when too long. */
struct CallOptions {
    std::string server;       /**< the server to route to (at most 8 characters); empty: the Gateway's default */
    std::string transaction;  /**< transaction id (at most 4 characters) */
    std::string user;         /**< user id (at most 16 characters) */
    std::string password;     /**< password (at most 16 characters); never traced */
    int reply_length = 0;     /**< bytes wanted back; 0: the whole COMMAREA */
    int commarea_length = 0;  /**< size of the COMMAREA; 0: the request's size, or reply_length when larger */
    int timeout = 0;          /**< seconds the Gateway may take (0: no limit), 0..32767 */
};

/** What a program call returned. */
struct Reply {
    Bytes data;         /**< the COMMAREA as it came back (reply_length bytes, or the whole COMMAREA) */
    std::string abend;  /**< abend code, blanks removed; empty when the program ended normally */
    /** The reply as text (bytes unchanged), without trailing zero bytes. */
    std::string text() const {
        std::string s = to_string(data);
        while (!s.empty() && s.back() == '\0') s.pop_back();
        return s;
    }
};

/** Container types. */
enum class ContainerType { bit = ECI_BIT, character = ECI_CHAR };

/** What a channel holds about one container. */
struct ContainerInfo {
    std::string name;
    ContainerType type = ContainerType::bit;
    int ccsid = 0;              /**< 0 for BIT containers */
    std::uint64_t size = 0;     /**< data length in bytes */
};

/** A channel: a named set of named containers, with value semantics. Copies are
 * deep (a new channel with copies of every container); moves take the handle over.
 * Text containers keep their bytes as given: the CCSID says what they are in. */
class Channel {
public:
    /** Creates an empty channel; name: 1 to 16 of the allowed characters. */
    explicit Channel(std::string_view name) {
        detail::check_name(name, "channel name");
        std::string n(name);
        detail::check(ECI_createChannel(n.c_str(), &tok_));
    }
    Channel(const Channel& other) : Channel(other.name()) { copy_containers(other); }
    Channel(Channel&& other) noexcept : tok_(std::exchange(other.tok_, nullptr)) {}
    Channel& operator=(const Channel& other) {
        if (this != &other) *this = Channel(other);
        return *this;
    }
    Channel& operator=(Channel&& other) noexcept {
        if (this != &other) {
            release();
            tok_ = std::exchange(other.tok_, nullptr);
        }
        return *this;
    }
    ~Channel() { release(); }

    /** The channel's name (a reply may rename it). */
    std::string name() const {
        char buffer[ECI_CHANNEL_NAME_LENGTH + 1] = {};
        detail::check(ECI_getChannelName(handle(), buffer));
        return buffer;
    }

    /** Sets a BIT container, creating it or replacing its data. */
    void set_bytes(std::string_view container, std::span<const unsigned char> data) {
        put(container, ContainerType::bit, 0, data.data(), data.size());
    }
    /** Sets a CHAR container whose bytes are in `ccsid` (0: the channel's, or the process's). */
    void set_text(std::string_view container, std::string_view text, int ccsid = 0) {
        put(container, ContainerType::character, ccsid, text.data(), text.size());
    }

    /** A container's bytes; throws ECI_ERR_CONTAINER_NOTFOUND when there is none. */
    Bytes bytes(std::string_view container) const {
        ContainerInfo info = this->info(container);
        std::string n(container);
        Bytes data(static_cast<std::size_t>(info.size));
        std::size_t read = 0;
        if (!data.empty()) detail::check(ECI_getContainerData(tok_, n.c_str(), data.data(), data.size(), 0, &read));
        data.resize(read);
        return data;
    }
    /** A container's bytes as a text (unchanged). */
    std::string text(std::string_view container) const { return to_string(bytes(container)); }

    /** Facts about one container; throws when there is none. */
    ContainerInfo info(std::string_view container) const {
        detail::check_name(container, "container name");
        std::string n(container);
        EciContainerInfo raw{};
        detail::check(ECI_getContainerInfo(handle(), n.c_str(), &raw));
        return convert(raw);
    }
    /** True when the channel has the container. */
    bool contains(std::string_view container) const {
        detail::check_name(container, "container name");
        std::string n(container);
        EciContainerInfo raw{};
        int rc = ECI_getContainerInfo(handle(), n.c_str(), &raw);
        if (rc == ECI_ERR_CONTAINER_NOTFOUND) return false;
        detail::check(rc);
        return true;
    }
    /** Deletes a container; throws when there is none. */
    void erase(std::string_view container) {
        detail::check_name(container, "container name");
        std::string n(container);
        detail::check(ECI_deleteContainer(handle(), n.c_str()));
    }

    /** Every container, oldest first. */
    std::vector<ContainerInfo> containers() const {
        std::vector<ContainerInfo> list;
        EciContainerInfo raw{};
        int rc = ECI_getFirstContainer(handle(), &raw);
        while (rc == ECI_NO_ERROR) {
            list.push_back(convert(raw));
            rc = ECI_getNextContainer(tok_, &raw);
        }
        if (rc != ECI_ERR_ENDOFCONTAINERS) detail::fail(rc);
        std::reverse(list.begin(), list.end());  // the library browses newest first
        return list;
    }
    /** The C handle, for the C functions; the Channel keeps owning it. */
    chanTok handle() const {
        if (!tok_) detail::fail(ECI_ERR_INVALID_CHANNEL, "moved-from channel");
        return tok_;
    }

private:
    static ContainerInfo convert(const EciContainerInfo& raw) {
        ContainerInfo info;
        info.name = std::string(raw.name, strnlen(raw.name, sizeof raw.name));
        info.type = static_cast<ContainerType>(raw.type);
        info.ccsid = raw.ccsid;
        info.size = raw.dataLength;
        return info;
    }
    void put(std::string_view container, ContainerType type, int ccsid, const void* data, std::size_t size) {
        detail::check_name(container, "container name");
        std::string n(container);
        EciContainerInfo raw{};
        int rc = ECI_getContainerInfo(handle(), n.c_str(), &raw);
        if (rc == ECI_NO_ERROR && raw.type == static_cast<int>(type) && (ccsid == 0 || raw.ccsid == ccsid)) {
            detail::check(ECI_setContainerData(tok_, n.c_str(), data, size));
            return;
        }
        if (rc == ECI_NO_ERROR) {
            detail::check(ECI_deleteContainer(tok_, n.c_str()));
        } else if (rc != ECI_ERR_CONTAINER_NOTFOUND) {
            detail::fail(rc);
        }
        detail::check(ECI_createContainer(tok_, n.c_str(), static_cast<int>(type), ccsid, data, size));
    }
    void copy_containers(const Channel& other) {
        for (const ContainerInfo& c : other.containers()) {
            Bytes data = other.bytes(c.name);
            detail::check(ECI_createContainer(tok_, c.name.c_str(), static_cast<int>(c.type), c.ccsid, data.data(),
                                              data.size()));
        }
    }
    void release() noexcept {
        if (tok_) ECI_deleteChannel(&tok_);
        tok_ = nullptr;
    }
    chanTok tok_ = nullptr;
};

/** One server known to the Gateway. */
struct System {
    std::string name;
    std::string description;
};

/** What a successful password verification or change reports; a time the Gateway
 * did not set is empty. */
struct SecurityDetails {
    std::optional<std::tm> last_verified;
    std::optional<std::tm> expiry;
    std::optional<std::tm> last_access;
    int invalid_attempts = 0;
};

class Connection;
namespace detail {
struct ConnectionState;
}

/** A unit of work: calls made through it belong to one server transaction, ended
 * by commit() or backout(). Destroyed while still open (for instance by an
 * exception), it backs the work out. Move-only; it may outlive a move of its
 * Connection, not the connection's end. */
class Unit {
public:
    Unit(Unit&& other) noexcept
        : conn_(std::exchange(other.conn_, nullptr)), token_(other.token_), ended_(other.ended_),
          rolled_back_(other.rolled_back_), options_(std::move(other.options_)) {}
    Unit& operator=(Unit&&) = delete;
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;
    ~Unit() {
        try {
            if (open()) backout();
        } catch (...) {
            // A destructor may not throw; the server backs out a unit whose connection ends.
        }
    }

    /** Calls a program inside the unit. A failing program ends the unit on the server
     * (it is backed out): the unit is then closed and later calls throw. */
    inline Reply call(std::string_view program, std::span<const unsigned char> commarea, CallOptions options = {});
    inline Reply call(std::string_view program, std::string_view commarea, CallOptions options = {}) {
        Bytes data = to_bytes(commarea);
        return call(program, data, std::move(options));
    }
    /** Calls a program with a channel inside the unit. */
    inline void call(std::string_view program, Channel& channel, CallOptions options = {});

    /** Makes the work permanent. Throws ECI_ERR_ROLLEDBACK when the server already backed it out. */
    void commit() { end(ECI_COMMIT); }
    /** Undoes the work. */
    void backout() { end(ECI_BACKOUT); }
    /** True until commit(), backout() or a failure that ended it. */
    bool open() const noexcept { return conn_ != nullptr && !ended_; }
    /** The server's token of the unit; 0 before the first call. */
    int token() const noexcept { return token_; }

private:
    friend class Connection;
    Unit(detail::ConnectionState& conn, CallOptions options) : conn_(&conn), options_(std::move(options)) {}
    inline void end(short mode);
    inline void after(int rc, const EciParms& parms);
    inline CallOptions merged(CallOptions options) const;
    detail::ConnectionState* conn_;
    int token_ = 0;
    bool ended_ = false;
    bool rolled_back_ = false;
    CallOptions options_;
};

namespace detail {

/** What an asynchronous call leaves behind until its reply is collected. */
struct Pending {
    std::function<void(int rc, const EciParms& parms, const Bytes& commarea)> complete;
};

/** The shared state of a connection: its token and the collector of async replies. */
struct ConnectionState {
    gwTok token = nullptr;
    std::mutex mutex;
    std::condition_variable wake;
    bool closed = false;
    std::size_t pending_count = 0;
    // A message qualifier names a slot, which is reused once its reply was taken:
    // FIFO per qualifier keeps a late registration from being mistaken for an old one.
    std::unordered_map<int, std::deque<Pending>> pending;
    std::thread collector;

    void start_collector() {
        if (!collector.joinable()) collector = std::thread([this] { collect(); });
    }

    void fail_all(int rc) {
        std::unordered_map<int, std::deque<Pending>> orphans;
        {
            std::lock_guard<std::mutex> lock(mutex);
            orphans.swap(pending);
            pending_count = 0;
        }
        EciParms none{};
        Bytes empty;
        for (auto& [qual, queue] : orphans)
            for (Pending& p : queue) p.complete(rc, none, empty);
    }

    // Takes replies with a waiting retrieval while calls are in flight, and hands each
    // to the call it answers. Ends when the connection closes.
    void collect() {
        Bytes buffer(32767);
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait(lock, [this] { return closed || pending_count > 0; });
                if (closed && pending_count == 0) return;
            }
            EciParms parms{};
            parms.eci_version = 6;
            parms.eci_call_type = ECI_GET_REPLY_WAIT;
            parms.eci_commarea = buffer.data();
            parms.eci_commarea_length = static_cast<short>(buffer.size());
            int rc = KVL_ECI_Execute(token, &parms);
            if (parms.eci_call_type != ECI_ASYNC) {
                // No reply was delivered: the connection has ended (or is closing).
                bool by_us;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    by_us = closed;
                }
                fail_all(by_us || rc == KVL_OK ? KVL_ERR_GWTOK_CLOSED : rc);
                std::lock_guard<std::mutex> lock(mutex);
                if (closed) return;
                continue;
            }
            std::optional<Pending> done;
            {
                std::lock_guard<std::mutex> lock(mutex);
                auto it = pending.find(parms.eci_msg_qual);
                if (it != pending.end() && !it->second.empty()) {
                    done = std::move(it->second.front());
                    it->second.pop_front();
                    if (it->second.empty()) pending.erase(it);
                    --pending_count;
                }
            }
            if (done) done->complete(rc, parms, buffer);
        }
    }
};

inline Reply make_reply(const EciParms& parms, const unsigned char* data, std::size_t size) {
    Reply reply;
    reply.data.assign(data, data + size);
    reply.abend = trim_field(parms.eci_abend, sizeof parms.eci_abend);
    return reply;
}

}  // namespace detail

/** An open connection to a Gateway. Opens in its constructor and closes in its
 * destructor; move-only. The destructor does not wait for asynchronous calls in
 * flight: it purges the connection, and their futures complete with an Error. */
class Connection {
public:
    /** Opens a connection; connect_timeout in seconds (0: not bounded), applid and
     * qualifier at most 8 characters. Throws Error on failure. */
    Connection(const std::string& host, int port, int connect_timeout = 0, const std::string& applid = {},
               const std::string& qualifier = {})
        : state_(std::make_unique<detail::ConnectionState>()) {
        detail::check(KVL_openRemoteGatewayConnectionApplid(host.c_str(), port, &state_->token, connect_timeout,
                                                            applid.c_str(), qualifier.c_str()));
    }

    /** Opens a connection with the extension options (TLS, deadlines, keep-alive). */
    explicit Connection(const KVL_EXT_ConnectOptions& options)
        : state_(std::make_unique<detail::ConnectionState>()) {
        detail::check(KVL_EXT_openConnection(&options, &state_->token));
    }

    /** Opens a connection without throwing: empty with `ec` set on failure. */
    static std::optional<Connection> open(const std::string& host, int port, std::error_code& ec,
                                          int connect_timeout = 0) {
        try {
            ec.clear();
            return Connection(host, port, connect_timeout);
        } catch (const Error& e) {
            ec = e.code();
            return std::nullopt;
        }
    }

    Connection(Connection&&) noexcept = default;
    Connection& operator=(Connection&& other) noexcept {
        if (this != &other) {
            end_quietly();
            state_ = std::move(other.state_);
        }
        return *this;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { end_quietly(); }

    /** Closes: waits for calls and asynchronous replies in flight, then ends the connection. */
    void close() { end([](gwTok* tok) { return KVL_closeGatewayConnection(tok); }); }
    /** Ends the connection after waiting at most `wait_seconds` (0..3600) for work in flight;
     * asynchronous calls still unanswered then complete with an Error. */
    void purge(int wait_seconds = 0) {
        end([wait_seconds](gwTok* tok) { return KVL_purgeGatewayConnection(tok, wait_seconds); });
    }
    /** True until close(), purge() or a move. */
    bool is_open() const noexcept { return state_ && state_->token; }
    /** The C handle, for the C functions; the Connection keeps owning it. */
    gwTok handle() const {
        if (!is_open()) detail::fail(KVL_ERR_NULLGWTOK, "connection is closed");
        return state_->token;
    }

    /** The applid the connection was opened with. */
    std::string applid() const {
        char* text = nullptr;
        detail::check(KVL_getApplid(handle(), &text));
        return text ? text : "";
    }
    /** The applid qualifier the connection was opened with. */
    std::string applid_qualifier() const {
        char* text = nullptr;
        detail::check(KVL_getApplidQualifier(handle(), &text));
        return text ? text : "";
    }

    /** Calls a program with a COMMAREA and waits for its reply. Throws Error for every
     * failure, with the abend code for ECI_ERR_TRANSACTION_ABEND. */
    Reply call(std::string_view program, std::span<const unsigned char> commarea, const CallOptions& options = {}) {
        return call_in(handle(), program, commarea, options, ECI_NO_EXTEND, 0, nullptr);
    }
    Reply call(std::string_view program, std::string_view commarea, const CallOptions& options = {}) {
        Bytes data = to_bytes(commarea);
        return call(program, data, options);
    }
    /** The same without exceptions: `ec` holds the code (and the reply is empty) on failure. */
    Reply call(std::string_view program, std::span<const unsigned char> commarea, const CallOptions& options,
               std::error_code& ec) {
        try {
            ec.clear();
            return call(program, commarea, options);
        } catch (const Error& e) {
            ec = e.code();
            return {};
        }
    }

    /** Calls a program with a channel and waits; the reply's containers are applied to it. */
    void call(std::string_view program, Channel& channel, const CallOptions& options = {}) {
        call_channel_in(handle(), program, channel, options, ECI_NO_EXTEND, 0, nullptr);
    }

    /** Starts a program call and returns at once; the future completes when the reply
     * is collected, or with an Error (also when the connection ends first). */
    std::future<Reply> call_async(std::string_view program, std::span<const unsigned char> commarea,
                                  const CallOptions& options = {}) {
        auto promise = std::make_shared<std::promise<Reply>>();
        std::future<Reply> future = promise->get_future();
        call_async(program, commarea, options, [promise](std::exception_ptr error, Reply reply) {
            if (error)
                promise->set_exception(error);
            else
                promise->set_value(std::move(reply));
        });
        return future;
    }
    std::future<Reply> call_async(std::string_view program, std::string_view commarea,
                                  const CallOptions& options = {}) {
        Bytes data = to_bytes(commarea);
        return call_async(program, data, options);
    }
    /** Starts a program call; `done` runs on the connection's collector thread with the
     * reply, or with the error (an Error) and an empty reply. `done` must not block long
     * nor close the connection. Throws at once when the request cannot be sent. */
    void call_async(std::string_view program, std::span<const unsigned char> commarea, const CallOptions& options,
                    std::function<void(std::exception_ptr, Reply)> done) {
        EciParms parms{};
        auto buffer = std::make_shared<Bytes>();
        prepare(parms, program, commarea, options, *buffer);
        parms.eci_call_type = ECI_ASYNC;
        auto complete = [done = std::move(done)](int rc, const EciParms& reply, const Bytes& data) {
            if (rc != KVL_OK) {
                done(std::make_exception_ptr(Error(rc, {}, detail::trim_field(reply.eci_abend, 4))), Reply{});
                return;
            }
            std::size_t size = static_cast<std::size_t>(std::max<short>(reply.commarea_inbound_length, 0));
            done(nullptr, detail::make_reply(reply, data.data(), std::min(size, data.size())));
        };
        send_async(parms, [&](EciParms& p) { return KVL_ECI_Execute(handle(), &p); }, std::move(complete));
    }

    /** Starts a channel call; the future gives the channel back with the reply applied. */
    std::future<Channel> call_async(std::string_view program, Channel channel, const CallOptions& options = {}) {
        auto promise = std::make_shared<std::promise<Channel>>();
        std::future<Channel> future = promise->get_future();
        EciParms parms{};
        Bytes unused;
        prepare(parms, program, {}, options, unused);
        auto owned = std::make_shared<Channel>(std::move(channel));
        parms.eci_call_type = ECI_ASYNC;
        parms.eci_commarea = nullptr;
        parms.eci_commarea_length = 0;
        parms.eci_channel = owned->handle();
        auto complete = [promise, owned](int rc, const EciParms& reply, const Bytes&) {
            if (rc != KVL_OK)
                promise->set_exception(
                    std::make_exception_ptr(Error(rc, {}, detail::trim_field(reply.eci_abend, 4))));
            else
                promise->set_value(std::move(*owned));
        };
        send_async(parms, [&](EciParms& p) { return KVL_ECI_Execute_Channel(handle(), &p); }, std::move(complete));
        return future;
    }

    /** Asynchronous calls sent whose replies were not yet collected. */
    std::size_t in_flight() const {
        if (!state_) return 0;
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->pending_count;
    }

    /** Starts a unit of work; `options` (server, user, ...) apply to its every call. */
    Unit begin_unit(CallOptions options = {}) {
        handle();
        return Unit(*state_, std::move(options));
    }

    /** Verifies a user's password; throws Error (ESI_ERR_...) when it is refused. */
    SecurityDetails verify_password(const std::string& user, const std::string& password,
                                    const std::string& server = {}) {
        esiDetails raw{};
        detail::check(KVL_ESI_verifyPassword(handle(), user.c_str(), password.c_str(),
                                             server.empty() ? nullptr : server.c_str(), &raw));
        return convert(raw);
    }
    /** Changes a user's password; throws Error when it is refused. */
    SecurityDetails change_password(const std::string& user, const std::string& old_password,
                                    const std::string& new_password, const std::string& server = {}) {
        esiDetails raw{};
        detail::check(KVL_ESI_changePassword(handle(), user.c_str(), old_password.c_str(), new_password.c_str(),
                                             server.empty() ? nullptr : server.c_str(), &raw));
        return convert(raw);
    }

    /** The servers the Gateway knows, however many. */
    std::vector<System> systems() {
        std::vector<kvlSystemInfo> list(16);
        for (int attempt = 0; attempt < 4; ++attempt) {
            unsigned short count = static_cast<unsigned short>(list.size());
            int rc = KVL_listSystems(handle(), &count, list.data());
            if (rc == KVL_ERR_MORE_SYSTEMS && count > list.size()) {
                list.resize(count);  // the Gateway said how many; ask again with room for all
                continue;
            }
            if (rc == KVL_ERR_NO_SYSTEMS) return {};
            detail::check(rc);
            std::vector<System> result;
            for (unsigned short i = 0; i < std::min<std::size_t>(count, list.size()); ++i) {
                result.push_back({detail::trim_field(list[i].SystemName, sizeof list[i].SystemName),
                                  detail::trim_field(list[i].SystemDescription, sizeof list[i].SystemDescription)});
            }
            return result;
        }
        detail::fail(KVL_ERR_MORE_SYSTEMS, "the list kept growing");
    }

private:
    friend class Unit;

    static SecurityDetails convert(const esiDetails& raw) {
        auto time = [](const EsiTime& t) -> std::optional<std::tm> {
            if (t.year == 0) return std::nullopt;
            std::tm result{};
            KVL_ESI_convertTime(&t, &result);
            return result;
        };
        return {time(raw.lastVerifiedTime), time(raw.expiryTime), time(raw.lastAccessTime), raw.invalidAttemptCount};
    }

    // Fills a version-6 block: blank-padded names, the COMMAREA copied into `buffer`
    // sized as the options ask.
    static void prepare(EciParms& parms, std::string_view program, std::span<const unsigned char> commarea,
                        const CallOptions& options, Bytes& buffer) {
        parms.eci_version = 6;
        parms.eci_call_type = ECI_SYNC;
        detail::put_field(parms.eci_program, program, "program name", false);
        detail::put_field(parms.eci_server_name, options.server, "server name");
        detail::put_field(parms.eci_tran_id, options.transaction, "transaction id");
        detail::put_field(parms.eci_userid, options.user, "user id");
        detail::put_field(parms.eci_password, {}, "password");
        if (options.password.size() > sizeof parms.eci_password) detail::bad_field("password", "****", 16);
        if (options.timeout < 0 || options.timeout > 32767)
            detail::fail(KVL_CPP_ERR_BADFIELD, "timeout must be 0 to 32767 seconds");
        if (options.reply_length < 0 || options.commarea_length < 0)
            detail::fail(KVL_CPP_ERR_BADFIELD, "lengths must not be negative");
        std::size_t size = std::max<std::size_t>(
            {commarea.size(), static_cast<std::size_t>(options.commarea_length),
             static_cast<std::size_t>(options.reply_length)});
        if (size > 32767) detail::fail(KVL_CPP_ERR_BADFIELD, "a COMMAREA holds at most 32767 bytes");
        buffer.assign(size, 0);
        std::copy(commarea.begin(), commarea.end(), buffer.begin());
        parms.eci_commarea = buffer.empty() ? nullptr : buffer.data();
        parms.eci_commarea_length = static_cast<short>(size);
        parms.commarea_outbound_length = static_cast<short>(commarea.size());
        parms.commarea_inbound_length = static_cast<short>(options.reply_length);
        parms.eci_timeout = static_cast<short>(options.timeout);
        parms.eci_luw_token = 0;
        parms.eci_userid_ptr = options.user.empty() ? nullptr : options.user.c_str();
        parms.eci_password_ptr = options.password.empty() ? nullptr : options.password.c_str();
    }

    static Reply call_in(gwTok token, std::string_view program, std::span<const unsigned char> commarea, const CallOptions& options,
                  short extend, int luw, Unit* unit) {
        EciParms parms{};
        Bytes buffer;
        prepare(parms, program, commarea, options, buffer);
        parms.eci_extend_mode = extend;
        parms.eci_luw_token = luw;
        int rc = KVL_ECI_Execute(token, &parms);
        if (unit) unit->after(rc, parms);
        if (rc != KVL_OK) detail::fail(rc, {}, detail::trim_field(parms.eci_abend, sizeof parms.eci_abend));
        // The synchronous path fills the COMMAREA in place; reply_length bounds what came back.
        std::size_t size = buffer.size();
        if (options.reply_length > 0) size = std::min<std::size_t>(size, options.reply_length);
        return detail::make_reply(parms, buffer.data(), size);
    }

    static void call_channel_in(gwTok token, std::string_view program, Channel& channel, const CallOptions& options, short extend,
                         int luw, Unit* unit) {
        EciParms parms{};
        Bytes unused;
        prepare(parms, program, {}, options, unused);
        parms.eci_commarea = nullptr;
        parms.eci_commarea_length = 0;
        parms.eci_channel = channel.handle();
        parms.eci_extend_mode = extend;
        parms.eci_luw_token = luw;
        int rc = KVL_ECI_Execute_Channel(token, &parms);
        if (unit) unit->after(rc, parms);
        if (rc != KVL_OK) detail::fail(rc, {}, detail::trim_field(parms.eci_abend, sizeof parms.eci_abend));
    }

    static int end_unit(gwTok token, short mode, int luw, const CallOptions& options) {
        EciParms parms{};
        Bytes unused;
        prepare(parms, " ", {}, options, unused);
        parms.eci_extend_mode = mode;
        parms.eci_luw_token = luw;
        return KVL_ECI_Execute(token, &parms);
    }

    template <class Send, class Complete>
    void send_async(EciParms& parms, Send send, Complete complete) {
        handle();
        detail::ConnectionState& s = *state_;
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.closed) detail::fail(KVL_ERR_GWTOK_CLOSED, "connection is closing");
        // Sent under the lock so the qualifier is registered before the collector can see its reply.
        int rc = send(parms);
        if (rc != KVL_OK) detail::fail(rc);
        s.pending[parms.eci_msg_qual].push_back(detail::Pending{std::move(complete)});
        ++s.pending_count;
        s.start_collector();
        s.wake.notify_all();
    }

    template <class Ender>
    void end(Ender ender) {
        gwTok tok = handle();
        detail::ConnectionState& s = *state_;
        {
            // Set first, so that calls failed by the end are reported as ended by it.
            std::lock_guard<std::mutex> lock(s.mutex);
            s.closed = true;
        }
        int rc = ender(&tok);
        if (rc != KVL_OK) {
            std::lock_guard<std::mutex> lock(s.mutex);
            s.closed = false;
            detail::fail(rc);
        }
        finish();
    }

    // After the library let go of the token: stop the collector, fail what is left.
    void finish() {
        detail::ConnectionState& s = *state_;
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            s.token = nullptr;
        }
        s.wake.notify_all();
        if (s.collector.joinable()) s.collector.join();
        s.fail_all(KVL_ERR_GWTOK_CLOSED);
    }

    void end_quietly() noexcept {
        if (!is_open()) return;
        try {
            purge(0);
        } catch (...) {
            // Nothing more can be done for a connection the library refused to end.
        }
    }

    std::unique_ptr<detail::ConnectionState> state_;
};

inline CallOptions Unit::merged(CallOptions options) const {
    if (!open()) detail::fail(rolled_back_ ? ECI_ERR_ROLLEDBACK : ECI_ERR_LUW_TOKEN, "the unit of work has ended");
    if (!conn_->token) detail::fail(KVL_ERR_NULLGWTOK, "connection is closed");
    if (options.server.empty()) options.server = options_.server;
    if (options.transaction.empty()) options.transaction = options_.transaction;
    if (options.user.empty()) {
        options.user = options_.user;
        options.password = options_.password;
    }
    return options;
}

inline Reply Unit::call(std::string_view program, std::span<const unsigned char> commarea, CallOptions options) {
    options = merged(std::move(options));
    return Connection::call_in(conn_->token, program, commarea, options, ECI_EXTENDED, token_, this);
}

inline void Unit::call(std::string_view program, Channel& channel, CallOptions options) {
    options = merged(std::move(options));
    Connection::call_channel_in(conn_->token, program, channel, options, ECI_EXTENDED, token_, this);
}

inline void Unit::after(int rc, const EciParms& parms) {
    if (rc == KVL_OK) {
        token_ = parms.eci_luw_token;
        return;
    }
    // A failing program ends the unit on the server, which answers with token 0.
    if (parms.eci_luw_token == 0) {
        ended_ = true;
        rolled_back_ = true;
        token_ = 0;
    }
}

inline void Unit::end(short mode) {
    if (!conn_) detail::fail(ECI_ERR_LUW_TOKEN, "moved-from unit of work");
    if (ended_) {
        if (rolled_back_ && mode == ECI_COMMIT) detail::fail(ECI_ERR_ROLLEDBACK, "the unit of work was backed out");
        if (rolled_back_) return;  // backing out what is already backed out
        detail::fail(ECI_ERR_LUW_TOKEN, "the unit of work has ended");
    }
    ended_ = true;
    rolled_back_ = mode == ECI_BACKOUT;
    if (token_ == 0) return;  // no call was made: nothing to end on the server
    if (!conn_->token) detail::fail(KVL_ERR_NULLGWTOK, "connection is closed");
    int rc = Connection::end_unit(conn_->token, mode, token_, options_);
    token_ = 0;
    detail::check(rc);
}

/** Versions of the library. */
inline std::string api_version() {
    char* text = nullptr;
    detail::check(KVL_getAPIVersion(&text));
    return text ? text : "";
}
inline std::string dll_version() {
    char* text = nullptr;
    detail::check(KVL_getDLLVersion(&text));
    return text ? text : "";
}

/** The API trace of the process. */
namespace trace {
/** Sets the level, 0 (off) to 5. */
inline void set_level(int level) { detail::check(KVL_setAPITraceLevel(level)); }
inline int level() {
    int value = 0;
    detail::check(KVL_getAPITraceLevel(&value));
    return value;
}
/** Appends the trace to a file; an empty name returns it to standard error. */
inline void set_file(const std::string& path) {
    detail::check(KVL_setAPITraceFile(path.empty() ? nullptr : path.c_str()));
}
/** How many bytes of each data area are dumped, and from which offset. */
inline void set_data_length(int length) { KVL_setAPITraceDataLength(length); }
inline void set_data_offset(int offset) { KVL_setAPITraceDataOffset(offset); }
/** Writes the library's state to the trace, whatever the level. */
inline void dump_state() { detail::check(KVL_dumpState()); }
}  // namespace trace

}  // namespace kvl

#endif
