// Runs kr in separate processes, for the programs of this folder.

import { spawn, spawnSync } from "node:child_process";
import { createServer } from "node:net";

const kPatience_ms = 30000;

/** A TCP port of the loopback interface that is free now. */
export function findFreePort() {
    return new Promise((resolve, reject) => {
        const server = createServer();
        server.once("error", reject);
        server.listen(0, "127.0.0.1", () => {
            const { port } = server.address();
            server.close(() => resolve(port));
        });
    });
}

export class KrPrograms {
    constructor(kr, broker) {
        this.kr = kr;
        this.broker = broker;
        this.running = new Set();
    }

    /** Starts a verb, and waits until it prints `ready` on standard error. */
    async start(ready, ...words) {
        const child = spawn(this.kr, [...words, "--broker", this.broker], { stdio: ["ignore", "ignore", "pipe"] });
        this.running.add(child);
        child.ended = new Promise((resolve) => child.once("close", resolve));
        child.ended.then(() => this.running.delete(child));
        let text = "";
        await new Promise((resolve, reject) => {
            const fail = (why) => reject(new Error(`kr ${words.join(" ")} ${why}:\n${text}`));
            const timer = setTimeout(() => fail(`did not say "${ready}"`), kPatience_ms);
            child.stderr.on("data", (data) => {
                text += data;
                if (text.includes(ready)) {
                    clearTimeout(timer);
                    resolve();
                }
            });
            child.ended.then(() => fail("has ended"));
        });
        child.stderr.resume();
        return child;
    }

    /** Runs a verb to its end and returns what it prints. */
    run(...words) {
        const { status, stdout, stderr } = spawnSync(this.kr, [...words, "--broker", this.broker], { encoding: "utf8" });
        if (status !== 0) {
            throw new Error(`kr ${words.join(" ")}: exit code ${status}\n${stderr}`);
        }
        return stdout.trim();
    }

    async end(child, signal) {
        child.kill(signal);
        await child.ended;
    }

    async endAll() {
        await Promise.all([...this.running].map((child) => this.end(child, "SIGKILL")));
    }
}
