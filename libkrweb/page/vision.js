// Resolution and colour-space codes, and formatting of numbers.

/** [code, width, height] of what vision extractors take, smallest first. */
export const kResolutions = [
    [8, 40, 30],
    [7, 80, 60],
    [0, 160, 120],
    [1, 320, 240],
    [2, 640, 480],
    [5, 1280, 720],
    [3, 1280, 960],
    [6, 1920, 1080],
    [4, 2560, 1920],
];

const kColorSpaces = { 0: "luma", 9: "YUV422", 11: "RGB", 13: "BGR", 18: "BGRx" };

export function formatResolution(code) {
    const found = kResolutions.find(([each]) => each === code);
    return found ? `${found[1]}×${found[2]}` : `resolution ${code}`;
}

export function formatColorSpace(code) {
    return kColorSpaces[code] ?? `colour space ${code}`;
}

/** About four significant digits, without an exponent where one can do without. */
export function formatNumber(value) {
    if (typeof value !== "number" || !Number.isFinite(value)) {
        return "–";
    }
    if (Number.isInteger(value) && Math.abs(value) < 1e9) {
        return String(value);
    }
    const size = Math.abs(value);
    if (size >= 1e6 || (size < 1e-4 && size > 0)) {
        return value.toExponential(2);
    }
    return value.toFixed(size >= 1000 ? 1 : size >= 100 ? 2 : size >= 1 ? 3 : 4);
}

/** The same without trailing zeros, for what seldom changes. */
export function formatShort(value) {
    return String(Number(Number(value).toPrecision(4)));
}

/** With one decimal, or a dash. */
export function formatTenths(value) {
    return typeof value === "number" && Number.isFinite(value) ? value.toFixed(1) : "–";
}

/** Milliseconds with one decimal where they are few. */
export function formatDuration(value) {
    return value < 9.95 ? formatTenths(value) : String(Math.round(value));
}

/** Local time with milliseconds. */
export function formatTime(time_ms) {
    const date = new Date(time_ms);
    const pad = (number, digits = 2) => String(number).padStart(digits, "0");
    return `${pad(date.getHours())}:${pad(date.getMinutes())}:${pad(date.getSeconds())}.${pad(date.getMilliseconds(), 3)}`;
}

/** A value in one line: JSON with short numbers, cut after `length` characters. */
export function formatValue(value, length = 160) {
    const text = JSON.stringify(value, (_, part) => (typeof part === "number" ? Number(formatNumber(part)) : part)) ?? "–";
    return text.length > length ? `${text.slice(0, length)}…` : text;
}
