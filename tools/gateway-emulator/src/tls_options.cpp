// The emulator's TLS settings (the record work is in emu_tls_*.cpp).
#include "emu_tls.h"
#include "emulator_impl.h"

namespace kvlemu {

bool Emulator::tlsAvailable() { return tls::available(); }

bool Emulator::setTls(const TlsOptions& options) {
    std::string error;
    std::shared_ptr<tls::ServerContext> context = tls::makeServerContext(options, &error);
    std::lock_guard<std::mutex> lock(impl_->m);
    if (!context) {
        impl_->lastError = error;
        return false;
    }
    const int timeoutMs = options.handshakeTimeoutMs > 0 ? options.handshakeTimeoutMs : 10000;
    impl_->openStream = [context, timeoutMs](net::Socket s) { return tls::serverStream(context, s, timeoutMs); };
    return true;
}

void Emulator::clearTls() {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->openStream = plainStream;
}

}  // namespace kvlemu
