// Calls corvane-host over HTTP. README.md tells how it is started and what it prints.
import { randomBytes } from "node:crypto";
import { readFile } from "node:fs/promises";
import { homedir } from "node:os";

const url = process.env.CORVANE_URL ?? "http://127.0.0.1:8720";
const tokenFile =
    process.env.CORVANE_TOKEN_FILE ?? `${homedir()}/.local/state/corvane-host/token`;
// By name; other engines' ciphers have numbers of their own, as "4".
const AES_256 = "aes-256";
const GCM = "gcm";
const SHA_256 = "sha-256";
const message = "meet me at the usual place";

// The host, the plug-in or the engine did not do it. Programs go by code and reason.
class Refused extends Error {
    constructor({ source, code, reason, field, text }) {
        super(`refused by ${source}: ${[code, reason, field].filter(Boolean).join(", ")}`);
        this.text = text;  // for people
    }
}

// The results of a request. Nothing of it is logged: it has the token, and keys.
async function send(request, parameters) {
    const token = (await readFile(tokenFile, "ascii")).trim();
    const response = await fetch(`${url}/v1/requests/${request}`, {
        method: "POST",
        headers: { Authorization: `Bearer ${token}`, "Content-Type": "application/json" },
        body: JSON.stringify(parameters),
        signal: AbortSignal.timeout(30_000),
    });
    const answer = await response.json();  // a status of 4xx or 5xx has an answer too
    if (answer.error)
        throw new Refused(answer.error);
    return answer.results;
}

function fromBase64(text) {
    return Buffer.from(text, "base64url");
}

function check(holds, complaint) {
    if (!holds)
        throw new Error(complaint);
}

async function checkHmac() {
    const { Data } = await send("QZaven_crypto_hmac", {
        strHashAlg: SHA_256,
        strKey: { text: "Jefe" },
        strdata: { text: "what do ya want for nothing?" },
    });
    check(Data === "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=", "the HMAC is another one");
    console.log("HMAC-SHA-256: as in RFC 4231, test case 2");
}

// Gives the parameters of the decryption.
async function encryptAndDecrypt() {
    // Bytes come as URL-safe Base64, which is taken as it is where bytes are due.
    const key = (await send("QZaven_crypto_gen_symmkey", { strCipherAlg: AES_256 })).Data;
    const cipher = {
        strCipherAlg: AES_256,
        strMode: GCM,
        strKey: key,
        strIV: { hex: randomBytes(12).toString("hex") },  // another one for each message
        straad: { text: "message 1" },  // not secret, but protected by the tag
    };
    const sealed = await send("QZaven_crypto_encrypt", { ...cipher, strdata: { text: message } });
    const tag = sealed.gcmOutTag;
    console.log(`AES-256-GCM: ${fromBase64(sealed.Data).length} bytes encrypted, ` +
        `${fromBase64(tag).length} bytes of tag`);

    const opening = { ...cipher, strdata: sealed.Data, strtag: tag };
    const opened = fromBase64((await send("QZaven_crypto_decrypt", opening)).Data);
    check(opened.toString() === message, "the decrypted message is another one");
    console.log(`AES-256-GCM: ${opened.length} bytes decrypted, the same`);
    return opening;
}

async function showRefusal(title, request, parameters) {
    try {
        await send(request, parameters);
    } catch (refused) {
        if (!(refused instanceof Refused))
            throw refused;
        console.log(`${title}: ${refused.message}`);
        return;
    }
    throw new Error(`${title}: was not refused`);
}

try {
    await checkHmac();
    const opening = await encryptAndDecrypt();
    const wrongTag = { hex: "00".repeat(16) };
    await showRefusal("a wrong tag", "QZaven_crypto_decrypt", { ...opening, strtag: wrongTag });
    await showRefusal("text for bytes", "QZaven_crypto_hmac",
        { strHashAlg: SHA_256, strKey: { text: "Jefe" }, strdata: "two words" });
} catch (problem) {
    const more = problem.text ?? problem.cause?.message;  // fetch has the reason in `cause`
    console.error(`error: ${problem.message}${more ? `: ${more}` : ""}`);
    process.exitCode = 1;
}
