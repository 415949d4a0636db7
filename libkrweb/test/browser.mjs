// A headless Chromium, driven by the DevTools protocol over a pipe, so it needs neither a port nor a package.

import { spawn } from "node:child_process";
import { mkdtemp, rm, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";

const kPatience_ms = 30000;
const kPoll_ms = 30;

export class Browser {
    static async open(program = "chromium") {
        const profile = await mkdtemp(join(tmpdir(), "kr-browser-"));
        const isRoot = process.getuid() === 0; // Chromium's sandbox does not work for root
        const options = ["--headless=new", "--remote-debugging-pipe", "--disable-gpu", "--hide-scrollbars", "--no-first-run", `--user-data-dir=${profile}`];
        const child = spawn(program, [...options, ...(isRoot ? ["--no-sandbox"] : []), "about:blank"], {
            stdio: ["ignore", "ignore", "ignore", "pipe", "pipe"],
        });
        return new Browser(child, profile);
    }

    constructor(child, profile) {
        this.child = child;
        this.profile = profile;
        this.ended = new Promise((resolve) => child.once("close", resolve));
        this.calls = new Map(); // {resolve, reject} by id
        this.pages = new Map(); // by session
        this.nextId = 1;
        let rest = Buffer.alloc(0);
        child.stdio[4].on("data", (data) => {
            rest = Buffer.concat([rest, data]);
            for (let end = rest.indexOf(0); end >= 0; end = rest.indexOf(0)) {
                this.take(JSON.parse(rest.subarray(0, end)));
                rest = rest.subarray(end + 1);
            }
        });
        const fail = (error) => this.calls.forEach(({ reject }) => reject(error));
        child.stdio[3].on("error", fail);
        child.on("error", fail);
        this.ended.then(() => fail(new Error("the browser has ended")));
    }

    take({ id, result, error, method, params, sessionId }) {
        if (id === undefined) {
            this.pages.get(sessionId)?.take(method, params);
        } else if (error) {
            this.calls.get(id).reject(new Error(error.message));
        } else {
            this.calls.get(id).resolve(result);
        }
        this.calls.delete(id);
    }

    send(method, params = {}, sessionId = undefined) {
        const id = this.nextId++;
        this.child.stdio[3].write(`${JSON.stringify({ id, method, params, sessionId })}\0`);
        return new Promise((resolve, reject) => this.calls.set(id, { resolve, reject }));
    }

    async openPage(url, width = 1280, height = 900) {
        const { targetId } = await this.send("Target.createTarget", { url: "about:blank" });
        const { sessionId } = await this.send("Target.attachToTarget", { targetId, flatten: true });
        const page = new Page(this, sessionId);
        this.pages.set(sessionId, page);
        await page.setSize(width, height);
        await page.send("Runtime.enable");
        await page.send("Page.enable");
        await page.open(url);
        return page;
    }

    async close() {
        this.send("Browser.close").catch(() => {});
        await this.ended;
        await rm(this.profile, { recursive: true, force: true });
    }
}

class Page {
    constructor(browser, sessionId) {
        this.browser = browser;
        this.sessionId = sessionId;
        this.errors = []; // uncaught exceptions, and dialogs
    }

    send(method, params) {
        return this.browser.send(method, params, this.sessionId);
    }

    take(method, params) {
        if (method === "Runtime.exceptionThrown") {
            this.errors.push(params.exceptionDetails.exception?.description ?? params.exceptionDetails.text);
        } else if (method === "Page.javascriptDialogOpening") {
            this.errors.push(`a dialogue: ${params.message}`);
            this.send("Page.handleJavaScriptDialog", { accept: false });
        }
    }

    async open(url) {
        const { errorText } = await this.send("Page.navigate", { url });
        if (errorText) {
            throw new Error(`${url}: ${errorText}`);
        }
        await this.waitFor(`${url} to be loaded`, () => document.readyState === "complete" && location.protocol !== "about:");
    }

    setSize(width, height, density = 1) {
        return this.send("Emulation.setDeviceMetricsOverride", { width, height, deviceScaleFactor: density, mobile: false });
    }

    /** "light" or "dark" */
    setColorScheme(value) {
        return this.send("Emulation.setEmulatedMedia", { features: [{ name: "prefers-color-scheme", value }] });
    }

    /** Runs a function in the page and returns its result. */
    async evaluate(run, ...args) {
        const expression = `(${run})(...${JSON.stringify(args)})`;
        const { result, exceptionDetails } = await this.send("Runtime.evaluate", { expression, awaitPromise: true, returnByValue: true });
        if (exceptionDetails) {
            throw new Error(exceptionDetails.exception?.description ?? exceptionDetails.text);
        }
        return result.value;
    }

    /** Waits until a function in the page returns something, and returns that. */
    async waitFor(what, run, ...args) {
        for (const end = Date.now() + kPatience_ms; Date.now() < end; ) {
            const found = await this.evaluate(run, ...args);
            if (found) {
                return found;
            }
            await new Promise((resolve) => setTimeout(resolve, kPoll_ms));
        }
        throw new Error(`waited ${kPatience_ms / 1000} s for ${what}`);
    }

    /** Clicks with the mouse on an element once it exists. */
    async click(selector) {
        const { x, y } = await this.waitFor(
            `${selector} to be clicked`,
            (wanted) => {
                const target = document.querySelector(wanted);
                target?.scrollIntoView({ block: "center", behavior: "instant" });
                const { left, top, width, height } = target?.getBoundingClientRect() ?? {};
                return width > 0 && height > 0 && { x: left + width / 2, y: top + height / 2 };
            },
            selector,
        );
        for (const type of ["mousePressed", "mouseReleased"]) {
            await this.send("Input.dispatchMouseEvent", { type, x, y, button: "left", clickCount: 1 });
        }
    }

    /** Presses a key on the focused element. */
    async press(key, code) {
        const text = key.length === 1 ? key : undefined;
        for (const type of ["keyDown", "keyUp"]) {
            await this.send("Input.dispatchKeyEvent", { type, key, code: key, windowsVirtualKeyCode: code, text: type === "keyDown" ? text : undefined });
        }
    }

    /** Saves the window's content, or an element. */
    async saveScreenshot(path, selector = undefined) {
        const params = { format: "png" };
        if (selector !== undefined) {
            const find = (wanted) => {
                const { left, top, width, height } = document.querySelector(wanted).getBoundingClientRect();
                const margin = 16;
                return { x: left + scrollX - margin, y: top + scrollY - margin, width: width + 2 * margin, height: height + 2 * margin, scale: 1 };
            };
            Object.assign(params, { captureBeyondViewport: true, clip: await this.evaluate(find, selector) });
        }
        const { data } = await this.send("Page.captureScreenshot", params);
        await writeFile(path, Buffer.from(data, "base64"));
    }
}
