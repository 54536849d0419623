// Calls corvane-host over HTTP. README.md tells how it is started and what it prints.
import com.google.gson.JsonElement;
import com.google.gson.JsonObject;
import com.google.gson.JsonParseException;
import com.google.gson.JsonParser;
import java.io.IOException;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.SecureRandom;
import java.time.Duration;
import java.util.Base64;

public class Client {
    private static final String URL =
        System.getenv().getOrDefault("CORVANE_URL", "http://127.0.0.1:8720");
    private static final String TOKEN_FILE = System.getenv().getOrDefault(
        "CORVANE_TOKEN_FILE", System.getProperty("user.home") + "/.local/state/corvane-host/token");
    // By name; other engines' ciphers have numbers of their own, as "4".
    private static final String AES_256 = "aes-256";
    private static final String GCM = "gcm";
    private static final String SHA_256 = "sha-256";
    private static final String MESSAGE = "meet me at the usual place";

    private static final HttpClient http =
        HttpClient.newBuilder().version(HttpClient.Version.HTTP_1_1).build();

    // The host, the plug-in or the engine did not do it. Programs go by code and reason.
    private static class Refused extends Exception {
        final String text; // for people

        Refused(JsonObject error) {
            super("refused by " + error.get("source").getAsString() + ": " + parts(error));
            text = error.get("text").getAsString();
        }

        private static String parts(JsonObject error) {
            String all = error.get("code").getAsString();
            for (String name : new String[] {"reason", "field"}) {
                JsonElement part = error.get(name);
                if (part != null && !part.isJsonNull())
                    all += ", " + part.getAsString();
            }
            return all;
        }
    }

    // The results of a request. Nothing of it is logged: it has the token, and keys.
    private static JsonObject send(String request, JsonObject parameters)
        throws IOException, InterruptedException, Refused {
        String token = Files.readString(Path.of(TOKEN_FILE)).strip();
        HttpResponse<String> response = http.send(
            HttpRequest.newBuilder(URI.create(URL + "/v1/requests/" + request))
                .timeout(Duration.ofSeconds(30))
                .header("Authorization", "Bearer " + token)
                .header("Content-Type", "application/json")
                .POST(HttpRequest.BodyPublishers.ofString(parameters.toString()))
                .build(),
            HttpResponse.BodyHandlers.ofString());
        // A status of 4xx or 5xx has an answer too.
        JsonObject answer = JsonParser.parseString(response.body()).getAsJsonObject();
        if (!answer.get("error").isJsonNull())
            throw new Refused(answer.getAsJsonObject("error"));
        return answer.getAsJsonObject("results");
    }

    // Bytes in one of the forms that the host takes: {"text": ...}, {"hex": ...}.
    private static JsonObject bytes(String form, String value) {
        JsonObject object = new JsonObject();
        object.addProperty(form, value);
        return object;
    }

    private static byte[] fromBase64(JsonObject results, String name) {
        return Base64.getUrlDecoder().decode(results.get(name).getAsString());
    }

    private static String randomHex(int size) {
        byte[] random = new byte[size];
        new SecureRandom().nextBytes(random);
        StringBuilder hex = new StringBuilder();
        for (byte one : random)
            hex.append(String.format("%02x", one));
        return hex.toString();
    }

    private static void check(boolean holds, String complaint) throws IOException {
        if (!holds)
            throw new IOException(complaint);
    }

    private static JsonObject hmacParameters() {
        JsonObject parameters = new JsonObject();
        parameters.addProperty("strHashAlg", SHA_256);
        parameters.add("strKey", bytes("text", "Jefe"));
        parameters.add("strdata", bytes("text", "what do ya want for nothing?"));
        return parameters;
    }

    private static void checkHmac() throws IOException, InterruptedException, Refused {
        String data = send("QZaven_crypto_hmac", hmacParameters()).get("Data").getAsString();
        check(data.equals("W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM="),
              "the HMAC is another one");
        System.out.println("HMAC-SHA-256: as in RFC 4231, test case 2");
    }

    // Gives the parameters of the decryption.
    private static JsonObject encryptAndDecrypt()
        throws IOException, InterruptedException, Refused {
        JsonObject cipher = new JsonObject();
        cipher.addProperty("strCipherAlg", AES_256);
        // Bytes come as URL-safe Base64, which is taken as it is where bytes are due.
        JsonElement key = send("QZaven_crypto_gen_symmkey", cipher).get("Data");
        cipher.addProperty("strMode", GCM);
        cipher.add("strKey", key);
        cipher.add("strIV", bytes("hex", randomHex(12))); // another one for each message
        cipher.add("straad", bytes("text", "message 1")); // not secret, but protected by the tag

        JsonObject sealing = cipher.deepCopy();
        sealing.add("strdata", bytes("text", MESSAGE));
        JsonObject sealed = send("QZaven_crypto_encrypt", sealing);
        System.out.printf("AES-256-GCM: %d bytes encrypted, %d bytes of tag%n",
                          fromBase64(sealed, "Data").length,
                          fromBase64(sealed, "gcmOutTag").length);

        JsonObject opening = cipher.deepCopy();
        opening.add("strdata", sealed.get("Data"));
        opening.add("strtag", sealed.get("gcmOutTag"));
        byte[] opened = fromBase64(send("QZaven_crypto_decrypt", opening), "Data");
        check(new String(opened, StandardCharsets.UTF_8).equals(MESSAGE),
              "the decrypted message is another one");
        System.out.printf("AES-256-GCM: %d bytes decrypted, the same%n", opened.length);
        return opening;
    }

    private static void showRefusal(String title, String request, JsonObject parameters)
        throws IOException, InterruptedException {
        try {
            send(request, parameters);
        } catch (Refused refused) {
            System.out.println(title + ": " + refused.getMessage());
            return;
        }
        throw new IOException(title + ": was not refused");
    }

    public static void main(String[] arguments) throws InterruptedException {
        try {
            checkHmac();
            JsonObject opening = encryptAndDecrypt();
            opening.add("strtag", bytes("hex", "00".repeat(16)));
            showRefusal("a wrong tag", "QZaven_crypto_decrypt", opening);
            JsonObject plain = hmacParameters();
            plain.addProperty("strdata", "two words");
            showRefusal("text for bytes", "QZaven_crypto_hmac", plain);
        } catch (Refused refused) {
            System.err.println("error: " + refused.getMessage() + ": " + refused.text);
            System.exit(1);
        } catch (IOException | JsonParseException | IllegalStateException problem) {
            System.err.println("error: " + problem);
            System.exit(1);
        }
    }
}
