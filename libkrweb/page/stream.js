// The panels of events of modules and of the server's log.

import { element, setEmptyNote, setText } from "./dom.js";
import { formatTime, formatValue } from "./vision.js";

const kMaxRows = 200;
const kTogether_ms = 2000; // the same event again within this time changes its row instead of making another
const kPrefix = "/event/";

class Rows {
    constructor(list, note, emptyText) {
        this.list = list;
        this.note = note;
        this.emptyText = emptyText;
        this.showNote();
    }

    add(row) {
        this.list.prepend(row);
        while (this.list.children.length > kMaxRows) {
            this.list.lastElementChild.remove();
        }
        this.showNote();
    }

    clear() {
        this.list.replaceChildren();
        this.showNote();
    }

    showNote() {
        setEmptyNote(this.note, this.list.children.length === 0, this.emptyText);
    }
}

export class EventsPanel {
    constructor(client, list, note, clear) {
        this.client = client;
        this.rows = new Rows(list, note, "No event has been raised since this page was opened.");
        this.ends = new Map(); // of subscriptions, by topic
        this.newest = new Map(); // {row, count, time_ms} by name
        clear.addEventListener("click", () => {
            this.newest.clear();
            this.rows.clear();
        });
        client.addEventListener("channels", () => this.follow());
    }

    follow() {
        for (const topic of this.client.channels.keys()) {
            if (topic.startsWith(kPrefix) && !this.ends.has(topic)) {
                const name = topic.slice(kPrefix.length);
                this.ends.set(topic, this.client.subscribeJson(topic, ({ value }, time_ns) => this.take(name, value, Number(time_ns / 1000000n))));
            }
        }
    }

    take(name, value, time_ms) {
        let newest = this.newest.get(name);
        if (!newest || time_ms - newest.time_ms > kTogether_ms || !newest.row.isConnected) {
            const cells = { time: element("time"), count: element("span", { class: "count" }), value: element("code") };
            newest = { cells, count: 0, row: element("li", { "data-event": name }, cells.time, element("span", { class: "name" }, name), cells.count, cells.value) };
            setText(cells.time, formatTime(time_ms));
            this.newest.set(name, newest);
            this.rows.add(newest.row);
        }
        newest.time_ms = time_ms;
        newest.count += 1;
        setText(newest.cells.count, newest.count > 1 ? `× ${newest.count}, until ${formatTime(time_ms)}` : "");
        setText(newest.cells.value, formatValue(value));
    }
}

export class LogPanel {
    constructor(client, list, note, clear) {
        this.rows = new Rows(list, note, "The server has logged nothing since this page was opened.");
        clear.addEventListener("click", () => this.rows.clear());
        client.subscribeJson("/log", ({ time, level, category, text }) => this.add(1000 * time, level, category, text));
        client.addEventListener("status", ({ detail: { level, message } }) => this.add(Date.now(), ["info", "warning", "error"][level] ?? "info", "connection", message));
    }

    add(time_ms, level, category, text) {
        const kind = { error: "bad", warning: "warn" }[level] ?? "idle";
        this.rows.add(
            element(
                "li",
                {},
                element("time", {}, formatTime(time_ms)),
                element("span", { class: `state ${kind}` }, level),
                element("span", { class: "name" }, category),
                element("span", { class: "text" }, text),
            ),
        );
    }
}
