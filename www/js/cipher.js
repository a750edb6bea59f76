// The gateway's value cipher (two upper-case hex digits a byte, the key used
// cyclically) and the seed of the signed login: hex SHA-256 of base64 of the
// session-keyed cipher of "user:password". The password itself never leaves
// the browser.
import { sha256Hex } from "./sha256.js";

const utf8 = new TextEncoder();
const signedByte = (b) => (b >= 128 ? b - 256 : b);
const hexByte = (v) => (v & 0xff).toString(16).toUpperCase().padStart(2, "0");

// What the login checks a seed against.
export function cipher(key, plain) {
  const k = utf8.encode(key);
  return Array.from(utf8.encode(plain), (p, i) => {
    let v = signedByte(p) + signedByte(k[i % k.length]);
    if (v >= 94) v -= 94;
    if (v >= 127) v -= 94;
    return hexByte(v);
  }).join("");
}

export function loginSeed(sessionKey, user, password) {
  return sha256Hex(btoa(cipher(sessionKey, `${user}:${password}`)));
}

// A value for a property kept encrypted (a Wi-Fi key, a password): the
// gateway decrypts a pair as value - key + 94, so each byte goes out as
// text + key - 94, keyed with the request's access token.
export function encryptValue(token, text) {
  const k = utf8.encode(token);
  const pairs = Array.from(utf8.encode(text), (t, i) => hexByte(t + k[i % k.length] - 94)).join("");
  return btoa(pairs);
}

// The session cookie's value (QM_<realm>_ID) is the key of the signed login.
export function sessionKey() {
  const item = document.cookie.split(/;\s*/).find((c) => /^QM_[^=]+_ID=/.test(c));
  return item ? item.slice(item.indexOf("=") + 1) : "";
}
