#pragma once

namespace tallow::devstore {

// The keys that certificates are made with. RSA keys have 2048 bits but for the short kind, which
// no verifier may accept. RSAPSS is an RSA key whose signatures over documents are PSS padded.
enum class KeyKind { P256, P384, RSA, RSAPSS, ShortRSA, Ed25519 };

}  // namespace tallow::devstore
