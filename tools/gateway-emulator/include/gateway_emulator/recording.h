// Recording the flows of a session to a readable file, and serving the
// recorded replies back (README.md, "Record and replay", has the format).
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "gateway_emulator/emulator.h"

namespace kvlemu {

class Recorder {
public:
    ~Recorder();
    // Creates (truncates) the file and writes its first lines. False with a reason.
    bool open(const std::string& path, std::string& error);
    // The tap to give Emulator::setFlowTap; it keeps this recorder alive.
    static FlowTap tapOf(const std::shared_ptr<Recorder>& recorder);
    void write(int connection, bool inbound, const wire::Bytes& flow);

private:
    std::mutex m_;
    std::FILE* file_ = nullptr;
    double start_ = 0;
};

// Password bytes of an ECI or ESI request zeroed; other flows unchanged.
wire::Bytes withoutPasswords(const wire::Bytes& flow);

struct ReplayBook;

// Reads a recording: every ECI call in it with the reply that answered it.
// `exchanges` gets how many were found. False with "line N: why" on a bad file.
bool loadReplay(const std::string& path, std::shared_ptr<ReplayBook>& book, size_t& exchanges, std::string& error);
bool parseReplay(const std::string& text, std::shared_ptr<ReplayBook>& book, size_t& exchanges, std::string& error);
// Answers a call whose program, extend mode and data (COMMAREA, or the
// channel's containers) match a recorded one, with the recorded replies in
// their order (the last one again once they run out); nothing otherwise.
ReplySource replySourceOf(const std::shared_ptr<ReplayBook>& book);

}  // namespace kvlemu
