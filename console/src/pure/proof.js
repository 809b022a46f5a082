// Shows the server that somebody has the secret key, without sending it.
export async function proofOf(secret, key, nonce) {
  const text = new TextEncoder();
  const imported = await crypto.subtle.importKey("raw", text.encode(secret), { name: "HMAC", hash: "SHA-256" }, false, ["sign"]);
  const digest = await crypto.subtle.sign("HMAC", imported, text.encode(`${nonce}\n${key}`));
  return Array.from(new Uint8Array(digest), (byte) => byte.toString(16).padStart(2, "0")).join("");
}
