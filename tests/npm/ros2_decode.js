// Decodes messages of ROS 2 with a decoder that knows nothing of Kinetrel.
//   node ros2_decode.js < lines of "pose HEX" or "tf HEX", the payload with its encapsulation
// Prints one line for each message: "pose" or "tf", then for each transform
//   SECONDS NANOSECONDS FRAME CHILD-FRAME X Y Z QX QY QZ QW        (CHILD-FRAME of a pose: -)
"use strict";

const readline = require("readline");
const { parse } = require("@foxglove/rosmsg");
const { MessageReader } = require("@foxglove/rosmsg2-serialization");

const parts = {
  "std_msgs/Header": "builtin_interfaces/Time stamp\nstring frame_id",
  "builtin_interfaces/Time": "int32 sec\nuint32 nanosec",
  "geometry_msgs/Quaternion": "float64 x\nfloat64 y\nfloat64 z\nfloat64 w",
  "geometry_msgs/Point": "float64 x\nfloat64 y\nfloat64 z",
  "geometry_msgs/Vector3": "float64 x\nfloat64 y\nfloat64 z",
  "geometry_msgs/Pose": "geometry_msgs/Point position\ngeometry_msgs/Quaternion orientation",
  "geometry_msgs/Transform": "geometry_msgs/Vector3 translation\ngeometry_msgs/Quaternion rotation",
  "geometry_msgs/TransformStamped":
    "std_msgs/Header header\nstring child_frame_id\ngeometry_msgs/Transform transform",
};
const described = Object.entries(parts).map(([name, fields]) => `===\nMSG: ${name}\n${fields}`);
const readerOf = (fields) =>
  new MessageReader(parse([fields, ...described].join("\n"), { ros2: true }));
const pose = readerOf("std_msgs/Header header\ngeometry_msgs/Pose pose");
const tf = readerOf("geometry_msgs/TransformStamped[] transforms");

const words = (header, child, at, turn) => [
  header.stamp.sec, header.stamp.nanosec ?? header.stamp.nsec, header.frame_id, child,
  at.x, at.y, at.z, turn.x, turn.y, turn.z, turn.w].join(" ");

readline.createInterface({ input: process.stdin }).on("line", (line) => {
  const [kind, hex] = line.split(" ");
  const bytes = Buffer.from(hex, "hex");
  const transforms = kind === "pose"
    ? [pose.readMessage(bytes)].map((m) => words(m.header, "-", m.pose.position, m.pose.orientation))
    : tf.readMessage(bytes).transforms.map((m) =>
      words(m.header, m.child_frame_id, m.transform.translation, m.transform.rotation));
  console.log([kind, ...transforms].join(" "));
});
