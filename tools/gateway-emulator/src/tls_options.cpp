// The emulator's TLS settings (the record work is in emu_tls_*.cpp).
#include "emulator_impl.h"

namespace kvlemu {

bool Emulator::tlsAvailable() { return tls::available(); }

bool Emulator::setTls(const TlsOptions& options) {
    std::string error;
    auto context = tls::makeServerContext(options, &error);
    std::lock_guard<std::mutex> lock(impl_->m);
    if (!context) {
        impl_->lastError = error;
        return false;
    }
    impl_->tlsContext = std::move(context);
    impl_->tlsHandshakeTimeoutMs = options.handshakeTimeoutMs > 0 ? options.handshakeTimeoutMs : 10000;
    return true;
}

void Emulator::clearTls() {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->tlsContext.reset();
}

}  // namespace kvlemu
