// Tests the web server with the client library of viewers.
//   node peers.mjs SERVER-PROGRAM

import { strict as assert } from "node:assert";
import { spawn } from "node:child_process";
import { readFileSync } from "node:fs";
import { createInterface } from "node:readline";
import { createRequire } from "node:module";

const require = createRequire(`${process.cwd()}/`);
const { FoxgloveClient } = require("@foxglove/ws-protocol");
const { MessageReader } = require("@foxglove/rosmsg2-serialization");
const { parse } = require("@foxglove/rosmsg");
const { decode } = require("jpeg-js");
const WebSocket = require("ws");

const server = spawn(process.argv[2], ["snapshot.rgb"], { stdio: ["pipe", "pipe", "inherit"] });
const patience = setTimeout(() => {
    console.error("the server does not answer");
    server.kill();
    process.exit(1);
}, 30000);
const [port] = await new Promise((resolve) => createInterface(server.stdout).once("line", (line) => resolve([Number(line)])));

const client = new FoxgloveClient({ ws: new WebSocket(`ws://127.0.0.1:${port}/`, [FoxgloveClient.SUPPORTED_SUBPROTOCOL]) });
const channels = new Map();
const services = new Map();
const messages = new Map(); // {resolve} by subscription
let wake = () => {};
const until = async (find) => {
    for (;;) {
        const found = find();
        if (found !== undefined) {
            return found;
        }
        await new Promise((resolve) => (wake = resolve));
    }
};
let info, answer, parameters;
client.on("error", (error) => assert.fail(error));
client.on("serverInfo", (message) => ((info = message), wake()));
client.on("advertise", (list) => (list.forEach((channel) => channels.set(channel.topic, channel)), wake()));
client.on("advertiseServices", (list) => (list.forEach((service) => services.set(service.name, service)), wake()));
client.on("message", (message) => (messages.set(message.subscriptionId, message), wake()));
client.on("serviceCallResponse", (message) => ((answer = message), wake()));
client.on("parameterValues", (message) => ((parameters = message), wake()));

const toText = (view) => Buffer.from(view.buffer, view.byteOffset, view.byteLength).toString();
const readMessage = async (topic) => {
    const channel = await until(() => channels.get(topic));
    const id = client.subscribe(channel.id);
    const message = await until(() => messages.get(id));
    client.unsubscribe(id);
    return { channel, message };
};

await until(() => info);
assert.deepEqual(info.capabilities.sort(), ["parameters", "parametersSubscribe", "services"]);

const { channel, message } = await readMessage("/camera/0/image");
assert.equal(channel.schemaName, "sensor_msgs/msg/CompressedImage");
const reader = new MessageReader(parse(channel.schema, { ros2: true }));
const image = reader.readMessage(message.data);
assert.equal(image.format, "jpeg");
assert.equal(image.header.frame_id, "camera_0");
assert.equal(BigInt(image.header.stamp.sec) * 1000000000n + BigInt(image.header.stamp.nanosec), message.timestamp);
const picture = decode(Buffer.from(image.data), { useTArray: true });
assert.deepEqual([picture.width, picture.height], [640, 480]);
const snapshot = readFileSync("snapshot.rgb");
let difference = 0;
for (let pixel = 0; pixel < picture.width * picture.height; ++pixel) {
    for (let color = 0; color < 3; ++color) {
        difference += Math.abs(picture.data[4 * pixel + color] - snapshot[3 * pixel + color]);
    }
}
difference /= snapshot.length;
assert.ok(difference < 3, `the picture differs from the snapshot by ${difference} levels`);

const value = await readMessage("/memory/Sample/Value");
assert.equal(toText(value.message.data), '{"value":7}');

const service = await until(() => services.get("/KRMemory/getData"));
client.sendServiceCallRequest({
    serviceId: service.id,
    callId: 5,
    encoding: "json",
    data: new DataView(new TextEncoder().encode('{"key":"Sample/Value"}').buffer),
});
await until(() => answer);
assert.equal(answer.callId, 5);
assert.equal(toText(answer.data), '{"value":7}');

client.setParameters([{ name: "/camera/0/brightness", value: 20 }], "set");
await until(() => (parameters?.id === "set" ? true : undefined));
assert.deepEqual(parameters.parameters, [{ name: "/camera/0/brightness", value: 20 }]);
client.getParameters(["/camera/0/brightness"], "get");
await until(() => (parameters?.id === "get" ? true : undefined));
assert.equal(parameters.parameters[0].value, 20);

clearTimeout(patience);
client.close();
server.stdin.end();
console.log(`the picture differs from the snapshot by ${difference.toFixed(2)} levels`);
