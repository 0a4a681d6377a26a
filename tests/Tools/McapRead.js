// Reads MCAP files with the format's own library, message by message, and says in a JSON array what each holds:
// McapRead.js FILE... NODE_PATH leads to @mcap/core, @foxglove/schemas and protobufjs. Pictures go to FILE.data/.
// An error is whatever that library finds wrong, checksums, a file that is not the same read from front to back and
// by its indices, and schemas that are not those that Foxglove has published.
const assert = require("assert");
const fs = require("fs");
const path = require("path");
const { crc32 } = require("@foxglove/crc");
const { foxgloveEnumSchemas, foxgloveMessageSchemas, generateProto } = require("@foxglove/schemas/internal");
const { McapIndexedReader, McapStreamReader } = require("@mcap/core");
const protobuf = require("protobufjs");
const descriptor = require("protobufjs/ext/descriptor");

/** The message's type, out of the descriptors that the file has of it. */
function loadType(schema) {
  assert.strictEqual(schema.encoding, "protobuf");
  const root = protobuf.Root.fromDescriptor(descriptor.FileDescriptorSet.decode(schema.data));
  root.resolveAll();
  return root.lookupType(schema.name);
}

/** A type's fields and enumerations by their numbers, in words that do not depend on how they were written. */
function describe(type) {
  const fields = type.fieldsArray.map((field) =>
    [field.id, field.name, field.resolvedType?.fullName ?? field.type, field.repeated, field.partOf?.name ?? null].join(" "));
  const enums = type.nestedArray.filter((nested) => nested.values).map((one) => one.name + JSON.stringify(one.values));
  return [...fields.sort(), ...enums.sort()];
}

/** Foxglove's own definition, with all that it needs. */
function loadPublished(name) {
  const root = new protobuf.Root();
  root.addJSON(protobuf.common.get("google/protobuf/timestamp.proto").nested);
  const needed = [name];
  for (const next of needed) {
    const schema = foxgloveMessageSchemas[next];
    const enums = Object.values(foxgloveEnumSchemas).filter((one) => one.parentSchemaName === next);
    protobuf.parse(generateProto(schema, enums), root, { keepCase: true });
    for (const { type } of schema.fields) {
      const isNew = type.type === "nested" && type.schema.protoEquivalent === undefined;
      if (isNew && !needed.includes(type.schema.name)) needed.push(type.schema.name);
    }
  }
  root.resolveAll();
  return root.lookupType("foxglove." + name);
}

function readStreamed(bytes) {
  const reader = new McapStreamReader({ validateCrcs: true });
  // In pieces, as from a network.
  const records = [];
  for (let at = 0; at < bytes.length; at += 100_000) {
    reader.append(bytes.subarray(at, at + 100_000));
    for (let record; (record = reader.nextRecord()); ) records.push(record);
  }
  assert(reader.done());
  return records;
}

function keep(message, type, topic, directory, into) {
  const decoded = type.decode(message.data);
  const value = type.toObject(decoded, { longs: Number, arrays: false });
  const entry = { ns: String(message.logTime), ...value };
  const { seconds = 0, nanos = 0 } = value.timestamp;
  assert.strictEqual(BigInt(seconds) * 1_000_000_000n + BigInt(nanos), message.logTime, topic);
  if (value.data !== undefined) {
    const target = path.join(directory, topic.replaceAll("/", "_"));
    fs.appendFileSync(target, value.data);
    entry.units = value.format === "h264" ? listUnits(Buffer.from(value.data)) : undefined;
    entry.data = value.data.length;
  }
  (into[topic] ??= []).push(entry);
}

/** Types of the NAL units of a byte stream. */
function listUnits(data) {
  const types = [];
  for (let at = data.indexOf("\0\0\x01", 0, "latin1"); at >= 0; at = data.indexOf("\0\0\x01", at + 3, "latin1")) {
    types.push(data[at + 3] & 31);
  }
  return types;
}

async function read(file) {
  const bytes = fs.readFileSync(file);
  fs.mkdirSync(file + ".data");
  const readable = {
    size: async () => BigInt(bytes.length),
    read: async (offset, size) => new Uint8Array(bytes.buffer, bytes.byteOffset + Number(offset), Number(size)),
  };
  const reader = await McapIndexedReader.Initialize({ readable });
  assert.strictEqual(reader.dataSectionCrc, crc32(bytes.subarray(0, Number(reader.dataEndOffset))), "data section");
  const types = new Map();
  const published = [];
  for (const [id, schema] of reader.schemasById) {
    types.set(id, loadType(schema));
    if (!schema.name.startsWith("foxglove.")) continue;
    assert.deepStrictEqual(describe(types.get(id)), describe(loadPublished(schema.name.slice(9))), schema.name);
    published.push(schema.name);
  }
  const streamed = readStreamed(bytes);
  const inOrder = streamed.filter((record) => record.type === "Message");
  const topics = {};
  let count = 0;
  for await (const message of reader.readMessages()) {
    const other = inOrder[count++];
    const isSame = other.channelId === message.channelId && other.sequence === message.sequence &&
      other.logTime === message.logTime && Buffer.compare(other.data, message.data) === 0;
    assert(isSame, `message ${count} is another one from front to back than by the indices`);
    const channel = reader.channelsById.get(message.channelId);
    assert.strictEqual(channel.messageEncoding, "protobuf");
    keep(message, types.get(channel.schemaId), channel.topic, file + ".data", topics);
  }
  assert.strictEqual(count, inOrder.length);
  const counts = {};
  for (const [id, number] of reader.statistics.channelMessageCounts) counts[reader.channelsById.get(id).topic] = Number(number);
  const attachments = {};
  for await (const { name, mediaType, data } of reader.readAttachments()) {
    attachments[name] = { mediaType, sha256: require("crypto").createHash("sha256").update(data).digest("hex") };
  }
  const metadata = {};
  for await (const { name, metadata: values } of reader.readMetadata()) metadata[name] = Object.fromEntries(values);
  return {
    topics, counts, attachments, metadata, published, chunks: reader.chunkIndexes.length,
    first: String(reader.statistics.messageStartTime), last: String(reader.statistics.messageEndTime),
    schemas: Object.fromEntries([...reader.channelsById.values()].map((one) => [one.topic, reader.schemasById.get(one.schemaId).name])),
  };
}

async function main() {
  const found = [];
  for (const file of process.argv.slice(2)) found.push(await read(file).catch((error) => ({ error: String(error) })));
  console.log(JSON.stringify(found));
}

main();
