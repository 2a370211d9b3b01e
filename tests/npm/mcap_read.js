// Reads a recording with a reader that knows nothing of Kinetrel.
//   node mcap_read.js FILE
// By the file's index, if it has one, else record by record. Prints "indexed" or "streamed", then for
// each topic, in order: TOPIC COUNT, and of poses the last one: X Y Z QX QY QZ QW
"use strict";

const fs = require("fs");
const { McapIndexedReader, McapStreamReader } = require("@mcap/core");
const { parse } = require("@foxglove/rosmsg");
const { MessageReader } = require("@foxglove/rosmsg2-serialization");

const file = fs.readFileSync(process.argv[2]);
const readable = {
  size: async () => BigInt(file.length),
  read: async (offset, length) => file.subarray(Number(offset), Number(offset + length)),
};

async function* messages() {
  let reader;
  try {
    reader = await McapIndexedReader.Initialize({ readable });
  } catch {
    console.log("streamed");
    const stream = new McapStreamReader();
    const channels = new Map();
    const schemas = new Map();
    stream.append(file);
    for (let record; (record = stream.nextRecord());) {
      if (record.type === "Schema") schemas.set(record.id, record);
      if (record.type === "Channel") channels.set(record.id, record);
      if (record.type === "Message") yield { message: record, channels, schemas };
    }
    return;
  }
  console.log("indexed");
  for await (const message of reader.readMessages({ validateCrcs: true })) {
    yield { message, channels: reader.channelsById, schemas: reader.schemasById };
  }
}

(async () => {
  const topics = new Map();
  for await (const { message, channels, schemas } of messages()) {
    const channel = channels.get(message.channelId);
    const seen = topics.get(channel.topic) ?? { count: 0, words: [] };
    topics.set(channel.topic, seen);
    ++seen.count;
    const schema = schemas.get(channel.schemaId);
    if (schema?.name !== "geometry_msgs/msg/PoseStamped") continue;
    seen.reader ??= new MessageReader(
      parse(new TextDecoder().decode(schema.data), { ros2: true }));
    const { position, orientation } = seen.reader.readMessage(message.data).pose;
    seen.words = [...Object.values(position), ...Object.values(orientation)];
  }
  for (const [topic, { count, words }] of [...topics].sort()) {
    console.log([topic, count, ...words].join(" "));
  }
})();
