// The session server as whoever runs it sees it.

import { readFileSync } from "node:fs";
import { join } from "node:path";

/**
 * All rooms, `{ id, streams, signals }`: how many participants VideoRoom and TextRoom have in each. The page asks,
 * which must be one of the studio's without a policy of its own.
 */
export function rooms(page, studio) {
  const [child] = studio.children("janus");
  const words = readFileSync(`/proc/${child}/cmdline`, "utf8").split("\0");
  const folder = words.find((word) => word.startsWith("--configs-folder=")).split("=")[1];
  const setting = (file, pattern) =>
    readFileSync(join(folder, `janus.${file}.jcfg`), "utf8").match(pattern)[1];
  const port = setting("transport.websockets", /ws_port = (\d+)/);
  const key = setting("plugin.videoroom", /admin_key = "(.*)"/);
  return page.evaluate(
    async ([port, key]) => {
      const socket = new WebSocket(`ws://127.0.0.1:${port}`, "janus-protocol");
      await new Promise((resolve, reject) => ([socket.onopen, socket.onerror] = [resolve, reject]));
      const ask = (message) =>
        new Promise((resolve) => {
          socket.onmessage = ({ data }) => resolve(JSON.parse(data));
          socket.send(JSON.stringify({ ...message, transaction: "t" }));
        });
      const session_id = (await ask({ janus: "create" })).data.id;
      const lists = {};
      for (const plugin of ["videoroom", "textroom"]) {
        const { data } = await ask({ janus: "attach", session_id, plugin: `janus.plugin.${plugin}` });
        const body = { request: "list", admin_key: key };
        const answer = await ask({ janus: "message", session_id, handle_id: data.id, body });
        lists[plugin] = answer.plugindata.data.list;
      }
      await ask({ janus: "destroy", session_id });
      socket.close();
      const signals = (id) => lists.textroom.find(({ room }) => room === id)?.num_participants;
      return lists.videoroom.map(({ room: id, num_participants: streams }) => ({
        id,
        streams,
        signals: signals(id),
      }));
    },
    [port, key],
  );
}
