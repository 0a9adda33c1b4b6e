// A network cable between browsers and the studio that can be cut.

import { once } from "node:events";
import { connect, createServer } from "node:net";

export class Cable {
  #server;
  #ends = new Set();
  #whole = true;

  /** Leads to the address of `link`; `link` then holds the same link at the cable's near end. */
  static async to(link) {
    const cable = new Cable();
    const address = new URL(link);
    const { hostname, port } = address;
    cable.#server = createServer((near) => cable.#join(near, connect(Number(port), hostname)));
    cable.#server.listen(0, "127.0.0.1");
    await once(cable.#server, "listening");
    address.port = cable.#server.address().port;
    cable.link = address.href;
    return cable;
  }

  #join(...ends) {
    for (const [at, end] of ends.entries()) {
      const other = ends[1 - at];
      this.#ends.add(end);
      end.pipe(other);
      end.on("error", () => {});
      end.on("close", () => (other.destroy(), this.#ends.delete(end)));
      if (!this.#whole) end.destroy();
    }
  }

  /** Ends what goes through the cable, and lets nothing through until it is mended. */
  cut() {
    this.#whole = false;
    for (const end of this.#ends) end.destroy();
  }

  mend() {
    this.#whole = true;
  }

  close() {
    this.cut();
    this.#server.close();
  }
}
