// kvl: call programs, list servers, check passwords and trace, from a shell.
#include <CLI/CLI.hpp>

#include <iostream>

#include "commands.h"
#include "input.h"
#include "output.h"
#include "platform.h"

using namespace kvlcli;

namespace {

void addPasswordOptions(CLI::App* cmd, PasswordSource& p) {
    cmd->add_option("--password-env", p.envName, "environment variable holding the password")
        ->capture_default_str();
    cmd->add_flag("-P,--ask-password", p.prompt, "ask for the password on the terminal, without echo");
    cmd->add_option("--password-insecure", p.insecure,
                    "the password itself: visible to every user of this machine; avoid");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"kvl: call programs on a transaction server through a Gateway, list its servers, check passwords."};
    app.require_subcommand(1);
    app.fallthrough();
    app.set_help_all_flag("--help-all", "help for every sub-command");
    app.footer(
        "Exit codes: 0 success, 1 the program or server answered with an error (abend, unknown server, security),\n"
        "2 usage error, 3 Gateway or connection failure, 4 any other failure.\n"
        "Settings come from options, then KVL_HOST, KVL_PORT, ... then the profile file (INI: host = ..., port = ...).");

    Settings s;
    app.set_config("--profile", defaultProfilePath(), "profile file (INI), also from KVL_PROFILE")
        ->envname("KVL_PROFILE");
    app.add_option("-H,--host", s.host, "Gateway host")->envname("KVL_HOST")->capture_default_str();
    app.add_option("-p,--port", s.port, "Gateway port")->envname("KVL_PORT")->check(CLI::Range(1, 65535))->capture_default_str();
    app.add_option("--connect-timeout", s.connectTimeout, "seconds to wait for the connection (0: no limit)")
        ->envname("KVL_CONNECT_TIMEOUT")->check(CLI::Range(0, 3600))->capture_default_str();
    app.add_option("--applid", s.applid, "applid of the connection (at most 8 characters)")->envname("KVL_CLI_APPLID");
    app.add_option("--qualifier", s.qualifier, "applid qualifier (at most 8 characters)");
    app.add_option("--trace", s.trace, "API trace: LEVEL (0-5), optionally :FILE")->envname("KVL_TRACE");
    app.add_flag("--json", s.json, "output for programs: one JSON object");

    CallArgs call;
    auto* c = app.add_subcommand("call", "call a program with a COMMAREA or a channel");
    c->add_option("PROGRAM", call.program, "program name (1 to 8 characters)");
    c->add_option("TEXT", call.text, "COMMAREA as text (encoded with --codepage)")
        ->each([&](const std::string&) { call.textGiven = true; });
    c->add_option("-x,--hex", call.hex, "COMMAREA as hex digits");
    c->add_option("-f,--file", call.file, "COMMAREA from a file");
    c->add_flag("--stdin", call.fromStdin, "COMMAREA from standard input");
    c->add_option("--codepage", call.codePage, "code page of text and of the shown reply (UTF-8, CP1252, IBM037, ...)")
        ->envname("KVL_CODEPAGE");
    c->add_option("-l,--length", call.length, "COMMAREA size in bytes (at least the data)")->check(CLI::Range(0, 32767));
    c->add_option("-r,--reply-length", call.replyLength, "bytes wanted back (0: the whole COMMAREA)")
        ->check(CLI::Range(0, 32767));
    c->add_option("-s,--server", call.options.server, "server name")->envname("KVL_SERVER");
    c->add_option("-t,--tran", call.options.transaction, "transaction id");
    c->add_option("-u,--user", call.options.user, "user id")->envname("KVL_USER");
    c->add_option("--timeout", call.options.timeout, "seconds the server may take")->check(CLI::Range(0, 32767));
    addPasswordOptions(c, call.password);
    c->add_flag("--async", call.async, "send asynchronously: show the message qualifier, then collect the reply");
    c->add_option("--channel", call.channel, "call with a channel of this name");
    c->add_option("-c,--container", call.containers,
                  "container: NAME=text, NAME@file, NAME:hex; NAME,BIT or NAME,CHAR[,CCSID] sets the type");
    c->add_option("--script", call.script, "calls from a file (- for standard input): PROGRAM [text|hex:HEX|@FILE] per line");
    c->add_flag("--begin", call.begin, "run the --script calls in one unit of work");
    c->add_flag("--commit", call.commit, "commit the unit of work at the end");
    c->add_flag("--backout", call.backout, "back the unit of work out at the end");
    c->add_option("-n,--repeat", call.repeat, "number of calls, for a load check")->check(CLI::PositiveNumber);
    c->add_option("-C,--concurrency", call.concurrency, "threads making the calls")->check(CLI::Range(1, 256));

    auto* systems = app.add_subcommand("systems", "list the servers the Gateway knows");

    std::string user, server;
    PasswordSource pw;
    auto* verify = app.add_subcommand("verify", "verify a user's password (from KVL_PASSWORD or a prompt)");
    verify->add_option("USER", user, "user id")->required();
    verify->add_option("-s,--server", server, "server name")->envname("KVL_SERVER");
    addPasswordOptions(verify, pw);
    auto* passwd = app.add_subcommand("passwd", "change a user's password (new one from KVL_NEW_PASSWORD or a prompt)");
    passwd->add_option("USER", user, "user id")->required();
    passwd->add_option("-s,--server", server, "server name")->envname("KVL_SERVER");
    addPasswordOptions(passwd, pw);

    auto* ping = app.add_subcommand("ping", "open a connection, shake hands and close, with the time taken");
    auto* version = app.add_subcommand("version", "versions of the library");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    if (call.password.insecure.size() && !call.password.insecureGiven) call.password.insecureGiven = true;
    if (c->count("--password-insecure")) call.password.insecureGiven = true;
    if (verify->count("--password-insecure") || passwd->count("--password-insecure")) pw.insecureGiven = true;
    if (call.password.insecureGiven || pw.insecureGiven)
        std::cerr << "kvl: warning: --password-insecure shows the password to every user of this machine" << std::endl;

    try {
        applyTrace(s.trace);
        if (c->parsed()) return runCall(s, call);
        if (systems->parsed()) return runSystems(s);
        if (verify->parsed()) return runVerify(s, user, server, pw);
        if (passwd->parsed()) return runPasswd(s, user, server, pw);
        if (ping->parsed()) return runPing(s);
        if (version->parsed()) return runVersion(s);
    } catch (const UsageError& e) {
        std::cerr << "kvl: " << e.what() << "\nRun with --help for more information." << std::endl;
        return kExitUsage;
    } catch (const kvl::Error& e) {
        return reportError("failed", e, s.json, Json{{"host", s.host}, {"port", s.port}});
    } catch (const std::exception& e) {
        std::cerr << "kvl: " << e.what() << std::endl;
        return kExitOther;
    }
    return kExitUsage;
}
