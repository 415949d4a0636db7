// A number over time, drawn on a canvas.

import { element, setText } from "./dom.js";
import { formatNumber, formatTime } from "./vision.js";

const kMaxSamples = 20000;
const kGap_ms = 3000; // samples farther apart than this are not joined by a line
const kTop = 10; // margins around the curve, pixels of the screen
const kBottom = 20;
const kLeft = 52;
const kRight = 10;

/** At most about `count` round numbers from low to high. */
function chooseTicks(low, high, count) {
    const rough = (high - low) / count;
    const power = 10 ** Math.floor(Math.log10(rough));
    const step = [1, 2, 5, 10].find((factor) => factor * power >= rough) * power;
    const ticks = [];
    for (let tick = Math.ceil(low / step) * step; tick <= high + step / 1e6; tick += step) {
        ticks.push(Math.abs(tick) < step / 1e6 ? 0 : tick);
    }
    return ticks;
}

export class Plot {
    /** `onclose` is called by the button that takes the plot away. */
    constructor(name, onclose) {
        this.times = []; // ms, rising
        this.values = [];
        this.seconds = 60; // of the window
        this.canvas = element("canvas", { role: "img", "aria-label": `${name} over time` });
        this.now = element("output");
        this.range = element("span", { class: "facts" });
        this.element = element(
            "figure",
            { class: "plot", "data-plot": name },
            element(
                "figcaption",
                {},
                element("span", { class: "name", title: name }, name),
                this.now,
                this.range,
                element("button", { class: "quiet", "aria-label": `Close plot of ${name}`, onclick: onclose }, "×"),
            ),
            this.canvas,
        );
        this.canvas.addEventListener("pointermove", ({ offsetX }) => this.point(offsetX));
        this.canvas.addEventListener("pointerleave", () => this.point(undefined));
        this.observer = new ResizeObserver(() => this.draw());
        this.observer.observe(this.canvas);
    }

    add(time_ms, value) {
        if (!Number.isFinite(value)) {
            return;
        }
        if (time_ms < (this.times.at(-1) ?? -Infinity)) { // a replayed recording has started over
            this.times = [];
            this.values = [];
        }
        this.times.push(time_ms);
        this.values.push(value);
        if (this.times.length > kMaxSamples) {
            this.times.splice(0, kMaxSamples / 4);
            this.values.splice(0, kMaxSamples / 4);
        }
    }

    point(x) {
        this.pointed = x;
        this.draw();
    }

    /** The first sample that is not older than the time. */
    findFirst(time_ms) {
        let low = 0;
        let high = this.times.length;
        while (low < high) {
            const middle = (low + high) >> 1;
            if (this.times[middle] < time_ms) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low;
    }

    draw() {
        const width = this.canvas.clientWidth;
        const height = this.canvas.clientHeight;
        if (width < kLeft + kRight + 20 || height < kTop + kBottom + 20) {
            return; // not laid out
        }
        const density = window.devicePixelRatio || 1;
        this.canvas.width = Math.round(width * density);
        this.canvas.height = Math.round(height * density);
        const context = this.canvas.getContext("2d");
        context.scale(density, density);
        context.font = "11px system-ui, sans-serif";
        const colors = {
            line: getComputedStyle(this.now).color,
            grid: getComputedStyle(this.element).borderTopColor,
            text: getComputedStyle(this.range).color,
        };

        // The newest sample is at the right edge; silence moves it to the left, by this browser's clock.
        const newest = this.times.at(-1) ?? Date.now();
        this.offset ??= newest - Date.now();
        this.offset = Math.max(this.offset, newest - Date.now());
        const end = Date.now() + this.offset;
        const start = end - 1000 * this.seconds;
        const first = Math.max(0, this.findFirst(start) - 1);
        const values = this.values.slice(this.findFirst(start));
        let low = values.reduce((a, b) => Math.min(a, b), Infinity);
        let high = values.reduce((a, b) => Math.max(a, b), -Infinity);
        setText(this.now, this.values.length > 0 ? formatNumber(this.values.at(-1)) : "no value yet");
        setText(this.range, values.length > 0 ? `${formatNumber(low)} to ${formatNumber(high)}` : "");
        if (values.length === 0) {
            [low, high] = [0, 1];
        } else if (high - low < 1e-9 * Math.max(1, Math.abs(high))) {
            [low, high] = [low - 0.5, high + 0.5];
        }
        const margin = 0.06 * (high - low);
        [low, high] = [low >= 0 && low - margin < 0 ? 0 : low - margin, high + margin];

        const toX = (time) => kLeft + ((time - start) / (end - start)) * (width - kLeft - kRight);
        const toY = (value) => height - kBottom - ((value - low) / (high - low)) * (height - kTop - kBottom);
        this.drawGrid(context, { width, height, low, high, toY, toX, start, end, colors });
        context.save();
        context.beginPath();
        context.rect(kLeft, 0, width - kLeft - kRight, height);
        context.clip();
        this.drawCurve(context, { first, toX, toY, bottom: height - kBottom, colors });
        context.restore();
        if (this.pointed !== undefined && this.pointed >= kLeft) {
            this.drawPointed(context, { width, height, start, end, toX, toY, colors });
        }
    }

    drawGrid(context, { width, height, low, high, toY, toX, start, end, colors }) {
        context.lineWidth = 1;
        context.strokeStyle = colors.grid;
        context.fillStyle = colors.text;
        context.textAlign = "right";
        context.textBaseline = "middle";
        for (const tick of chooseTicks(low, high, Math.max(2, Math.floor(height / 35)))) {
            const y = Math.round(toY(tick)) + 0.5;
            context.beginPath();
            context.moveTo(kLeft, y);
            context.lineTo(width - kRight, y);
            context.stroke();
            context.fillText(formatNumber(Number(tick.toPrecision(6))), kLeft - 6, y);
        }
        context.textBaseline = "alphabetic";
        const inMinutes = this.seconds >= 120;
        const steps = inMinutes ? this.seconds / 60 : 3;
        for (let i = 0; i <= steps; ++i) {
            const seconds = (this.seconds * (steps - i)) / steps;
            const text = inMinutes ? `−${seconds / 60} min` : `−${seconds} s`;
            context.textAlign = i === 0 ? "left" : i === steps ? "right" : "center";
            context.fillText(i === steps ? "now" : text, toX(end - 1000 * seconds), height - 5);
        }
    }

    drawCurve(context, { first, toX, toY, bottom, colors }) {
        // One vertical line per column of pixels, from the smallest to the largest sample there.
        const pieces = [[]];
        let column;
        for (let i = first; i < this.times.length; ++i) {
            if (i > first && this.times[i] - this.times[i - 1] > kGap_ms) {
                pieces.push([]);
                column = undefined;
            }
            const x = toX(this.times[i]);
            const y = toY(this.values[i]);
            const piece = pieces.at(-1);
            if (column !== undefined && Math.floor(x) === Math.floor(column.x)) {
                column.top = Math.min(column.top, y);
                column.bottom = Math.max(column.bottom, y);
                column.last = y;
            } else {
                column = { x, first: y, top: y, bottom: y, last: y };
                piece.push(column);
            }
        }
        context.lineWidth = 1.6;
        context.lineJoin = "round";
        context.strokeStyle = colors.line;
        for (const piece of pieces.filter(({ length }) => length > 0)) {
            context.beginPath();
            piece.forEach((each, i) => {
                i === 0 ? context.moveTo(each.x, each.first) : context.lineTo(each.x, each.first);
                if (each.top !== each.bottom) {
                    context.lineTo(each.x, each.top);
                    context.lineTo(each.x, each.bottom);
                    context.lineTo(each.x, each.last);
                }
            });
            if (piece.length === 1) {
                context.lineTo(piece[0].x + 1.5, piece[0].last);
            }
            context.stroke();
            context.lineTo(piece.at(-1).x, bottom);
            context.lineTo(piece[0].x, bottom);
            context.closePath();
            context.globalAlpha = 0.1;
            context.fillStyle = colors.line;
            context.fill();
            context.globalAlpha = 1;
        }
    }

    drawPointed(context, { width, height, start, end, toX, toY, colors }) {
        const time = start + ((this.pointed - kLeft) / (width - kLeft - kRight)) * (end - start);
        const after = this.findFirst(time);
        const i = after > 0 && (after === this.times.length || time - this.times[after - 1] < this.times[after] - time) ? after - 1 : after;
        if (i >= this.times.length || this.times[i] < start) {
            return;
        }
        const x = toX(this.times[i]);
        context.strokeStyle = colors.text;
        context.lineWidth = 1;
        context.beginPath();
        context.moveTo(x, kTop);
        context.lineTo(x, height - kBottom);
        context.stroke();
        context.fillStyle = colors.line;
        context.beginPath();
        context.arc(x, toY(this.values[i]), 3.5, 0, 2 * Math.PI);
        context.fill();
        context.textAlign = x > width / 2 ? "right" : "left";
        context.fillStyle = colors.text;
        context.fillText(`${formatNumber(this.values[i])} at ${formatTime(this.times[i])}`, x + (x > width / 2 ? -6 : 6), kTop + 10);
    }
}
