// Exchanges files with @mcap/core, both ways, and decodes images with @foxglove/rosmsg2-serialization. The
// programs lz4 and zstd compress.

import { McapIndexedReader, McapStreamReader, McapWriter } from "@mcap/core";
import { parse } from "@foxglove/rosmsg";
import { MessageReader } from "@foxglove/rosmsg2-serialization";
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";

const peer = process.argv[2];
const run = (program, args, input) =>
  execFileSync(program, args, { input, maxBuffer: 1 << 30, stdio: ["pipe", "pipe", "inherit"] });
const decompressHandlers = {
  lz4: (data) => new Uint8Array(run("lz4", ["-d", "-c"], data)),
  zstd: (data) => new Uint8Array(run("zstd", ["-d", "-c", "-q"], data)),
};
const compressors = {
  "": undefined,
  lz4: (data) => ({ compression: "lz4", compressedData: new Uint8Array(run("lz4", ["-c", "-q"], data)) }),
  zstd: (data) => ({ compression: "zstd", compressedData: new Uint8Array(run("zstd", ["-c", "-q"], data)) }),
};

// ---- our files, read by them

const colorSpaces = [
  { code: 0, encoding: "mono8", layers: 1 },
  { code: 9, encoding: "yuv422_yuy2", layers: 2 },
  { code: 11, encoding: "rgb8", layers: 3 },
  { code: 13, encoding: "bgr8", layers: 3 },
  { code: 18, encoding: "bgra8", layers: 4 },
];
const frames = 3;

// As in test/peer.cpp.
function makePixels({ code, layers }, frame) {
  return Uint8Array.from({ length: 160 * 120 * layers }, (_, i) => (i * 7 + (i >> 8) + code + frame) & 0xff);
}

async function readIndexed(path) {
  const bytes = readFileSync(path);
  const reader = await McapIndexedReader.Initialize({
    readable: {
      size: async () => BigInt(bytes.length),
      read: async (offset, size) => new Uint8Array(bytes.subarray(Number(offset), Number(offset + size))),
    },
    decompressHandlers,
  });
  const found = { channels: reader.channelsById, schemas: reader.schemasById, messages: [], attachments: [], metadata: [] };
  for await (const message of reader.readMessages({ validateCrcs: true })) found.messages.push(message);
  for await (const one of reader.readAttachments({ validateCrcs: true })) found.attachments.push(one);
  for await (const one of reader.readMetadata()) found.metadata.push(one);
  found.statistics = reader.statistics;
  return found;
}

function readStreamed(path) {
  const reader = new McapStreamReader({ decompressHandlers, validateCrcs: true });
  const found = { channels: new Map(), schemas: new Map(), messages: [], attachments: [], metadata: [] };
  const bytes = readFileSync(path);
  for (let offset = 0; offset < bytes.length; offset += 65536) {
    reader.append(new Uint8Array(bytes.subarray(offset, offset + 65536)));
    for (let record; (record = reader.nextRecord()); ) {
      if (record.type === "Schema") found.schemas.set(record.id, record);
      if (record.type === "Channel") found.channels.set(record.id, record);
      if (record.type === "Message") found.messages.push({ ...record, data: record.data.slice() });
      if (record.type === "Attachment") found.attachments.push(record);
      if (record.type === "Metadata") found.metadata.push(record);
      if (record.type === "Statistics") found.statistics = record;
    }
  }
  assert.ok(reader.done(), `${path} has no end`);
  return found;
}

function checkOurs(path, found) {
  let images = 0, properties = 0, values = 0;
  const counted = new Map();
  for (const message of found.messages) {
    const channel = found.channels.get(message.channelId);
    const schema = found.schemas.get(channel.schemaId);
    const frame = counted.get(channel.topic) ?? 0;
    counted.set(channel.topic, frame + 1);
    assert.equal(message.sequence, frame);
    const text = new TextDecoder();
    const camera = /^\/camera\/(\d+)\/(image|properties)$/.exec(channel.topic);
    if (camera?.[2] === "image") {
      assert.equal(schema.name, "sensor_msgs/msg/Image");
      assert.equal(schema.encoding, "ros2msg");
      assert.equal(channel.messageEncoding, "cdr");
      const definitions = parse(text.decode(schema.data), { ros2: true });
      const image = new MessageReader(definitions).readMessage(message.data);
      const colorSpace = colorSpaces[Number(camera[1])];
      assert.equal(image.encoding, colorSpace.encoding);
      assert.equal(image.width, 160);
      assert.equal(image.height, 120);
      assert.equal(image.step, 160 * colorSpace.layers);
      assert.equal(image.is_bigendian, 0);
      assert.equal(image.header.frame_id, "camera_0");
      const nanoseconds = 1500000000000000000n + BigInt(frame) * 33333000n;
      assert.equal(BigInt(image.header.stamp.sec) * 1000000000n + BigInt(image.header.stamp.nanosec), nanoseconds);
      assert.equal(message.logTime, nanoseconds);
      assert.ok(Buffer.from(image.data).equals(makePixels(colorSpace, frame)), `${path}: pixels of ${channel.topic}`);
      ++images;
    } else if (camera) {
      const json = JSON.parse(text.decode(message.data));
      assert.equal(json.color_space, colorSpaces[Number(camera[1])].code);
      assert.equal(json.left_angle, 0.5);
      assert.equal(typeof JSON.parse(text.decode(schema.data)), "object");
      ++properties;
    } else {
      assert.equal(schema.encoding, "jsonschema");
      const json = JSON.parse(text.decode(message.data));
      assert.deepEqual(json.value, channel.topic === "/memory/Test/Share" ? [frame, 0.1, "text"] : frame);
      ++values;
    }
  }
  assert.deepEqual([images, properties, values], [5 * frames, 5 * frames, 2 * frames], path);
  assert.equal(Buffer.from(found.attachments[0].data).toString(), "hello");
  assert.equal(found.attachments[0].name, "notes.txt");
  assert.equal(found.metadata[0].metadata.get("robot"), "r2");
  assert.equal(found.statistics.messageCount, BigInt(12 * frames));
}

rmSync("files", { recursive: true, force: true });
mkdirSync("files");
run(peer, ["write", "files"]);
for (const name of ["none", "small", "lz4", "zstd", "loose"]) {
  const path = `files/${name}.mcap`;
  checkOurs(path, readStreamed(path));
  if (name !== "loose") checkOurs(path, await readIndexed(path)); // loose has no index
  console.log(`${path}: read by @mcap/core`);
}

// ---- their files, read by us

async function writeTheirs(path, compression, options) {
  const parts = [];
  let size = 0n;
  const writer = new McapWriter({
    writable: {
      write: async (bytes) => { parts.push(Buffer.from(bytes)); size += BigInt(bytes.length); },
      position: () => size,
    },
    compressChunk: compressors[compression],
    chunkSize: 2000,
    ...options,
  });
  await writer.start({ profile: "theirs", library: "peers.mjs" });
  const known = { name: "Known", encoding: "jsonschema", data: new TextEncoder().encode('{"type": "object"}') };
  const unknown = { name: "Unknown", encoding: "of another world", data: new Uint8Array([0, 255, 128]) };
  const channels = [];
  for (const [topic, schema, messageEncoding] of [["/known", known, "json"], ["/unknown", unknown, "x"], ["/none", null, ""]]) {
    const schemaId = schema ? await writer.registerSchema(schema) : 0;
    const metadata = new Map([["of", topic]]);
    const id = await writer.registerChannel({ topic, schemaId, messageEncoding, metadata });
    channels.push({ id, topic, schema, messageEncoding });
  }
  const expected = [];
  for (let i = 0; i < 200; ++i) {
    const channel = channels[i % 3];
    const data = Buffer.from(`{"number": ${i}, "text": "${"x".repeat(i)}"}`);
    const time = 1700000000000000000n + BigInt(i) * 1000n;
    await writer.addMessage({ channelId: channel.id, sequence: i, logTime: time, publishTime: time - 5n, data });
    expected.push({
      topic: channel.topic, encoding: channel.messageEncoding, sequence: i, logTime: `${time}`, publishTime: `${time - 5n}`,
      data: data.toString("base64"),
    });
  }
  await writer.addAttachment({ logTime: 1n, createTime: 2n, name: "a", mediaType: "b", data: new Uint8Array([1, 2, 3]) });
  await writer.addMetadata({ name: "m", metadata: new Map([["k", "v"]]) });
  await writer.end();
  writeFileSync(path, Buffer.concat(parts));
  return expected;
}

const forms = {
  plain: {},
  bare: { repeatSchemas: false, repeatChannels: false, useStatistics: false, useSummaryOffsets: false },
  unindexed: { useChunkIndex: false, useMessageIndex: false, useAttachmentIndex: false, useMetadataIndex: false },
  loose: { useChunks: false },
};
for (const compression of Object.keys(compressors)) {
  for (const [form, options] of Object.entries(forms)) {
    const path = `files/theirs-${compression || "none"}-${form}.mcap`;
    const expected = await writeTheirs(path, compression, options);
    const read = JSON.parse(run(peer, ["read", path]).toString());
    assert.equal(read.messages.length, expected.length, path);
    for (const [i, message] of read.messages.entries()) {
      const { schema, metadata, ...rest } = message;
      assert.deepEqual(rest, expected[i]);
      assert.equal(metadata.of, message.topic);
      const name = { "/known": "Known", "/unknown": "Unknown" }[message.topic];
      assert.equal(schema?.name, name);
      if (name === "Unknown") assert.deepEqual([schema.encoding, schema.text], ["of another world", "AP+A"]);
    }
    assert.deepEqual(read.attachments, [{ name: "a", mediaType: "b", data: "AQID" }], path);
    assert.deepEqual(read.metadata, [{ name: "m", values: { k: "v" } }], path);
    assert.equal(read.profile, "theirs");
    assert.equal(read.isUndamaged, true, `${path}: ${read.damage}`);
    assert.equal(read.isIndexed, form === "plain", path);
    assert.equal(read.chunks > 1, form !== "loose", path);
    console.log(`${path}: read by us`);
  }
}
console.log("all files agree");
