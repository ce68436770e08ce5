// Receives OTLP and prints each body, decoded by the compiled definitions of an OpenTelemetry package, as a line of JSON. Answers with
// the statuses that it is given, one after another, and then with 200: otlp_receiver.mjs ROOT PORT STATUS...
// A status of 0 closes the connection, 1 answers with garbage, 2 never does.
import http from "node:http";
import { createRequire } from "node:module";
import zlib from "node:zlib";

const [root, port, ...statuses] = process.argv.slice(2);
const proto = createRequire(root + "/")("@opentelemetry/otlp-transformer/build/src/generated/root.js").opentelemetry.proto.collector;
const kinds = { "/v1/traces": proto.trace.v1.ExportTraceServiceRequest, "/v1/metrics": proto.metrics.v1.ExportMetricsServiceRequest };

http.createServer((request, response) => {
    const parts = [];
    request.on("data", part => parts.push(part));
    request.on("end", () => {
        const bytes = zlib.gunzipSync(Buffer.concat(parts)), kind = kinds[request.url];
        const json = request.headers["content-type"] === "application/json";
        const message = json ? JSON.parse(bytes) : kind.toObject(kind.decode(bytes), { longs: String, bytes: String, json: true });
        const status = request.url === "/v1/traces" ? Number(statuses.shift() ?? 200) : 200;
        console.log(JSON.stringify({ path: request.url, headers: request.headers, status, message }));
        if (status === 0) return request.socket.destroy();
        if (status === 2) return;
        if (status === 1) return request.socket.end("garbage\r\n\r\n");
        response.writeHead(status, status === 429 || status === 503 ? { "Retry-After": "2" } : {}).end();
    });
}).listen(Number(port), "127.0.0.1", () => console.log("{}"));
