// Draws foxglove.ImageAnnotations over a picture.

/** Values of PointsAnnotation.type. */
const kPoints = 1;
const kLineLoop = 2;
const kLineList = 4;

const kSmallestFont = 12; // pixels of the screen

function toColor(color) {
    const part = (value) => Math.round(255 * (value ?? 0));
    return color ? `rgba(${part(color.r)}, ${part(color.g)}, ${part(color.b)}, ${color.a ?? 1})` : "transparent";
}

const isPlace = (point) => Number.isFinite(point?.x) && Number.isFinite(point?.y);

/** The server sends places in pixels of pictures of this size, whatever size is looked at. */
const kWidth = 640;
const kHeight = 480;

/** Draws a message into a canvas that lies over the picture; `density` is its pixels per pixel of the screen. */
export function drawAnnotations(context, message, density) {
    const { width, height } = context.canvas;
    const scale = width / kWidth; // of lengths
    const place = ({ x, y }) => [(x * width) / kWidth, (y * height) / kHeight];
    for (const line of message.points ?? []) {
        drawPoints(context, line, place, scale, density);
    }
    for (const circle of message.circles ?? []) {
        drawCircle(context, circle, place, scale, density);
    }
    for (const text of message.texts ?? []) {
        drawText(context, text, place, scale, density);
    }
}

function stroke(context, color, width) {
    context.lineJoin = "round";
    context.strokeStyle = "rgba(0, 0, 0, 0.45)"; // so that a line is seen on any picture
    context.lineWidth = width + 2;
    context.stroke();
    context.strokeStyle = color;
    context.lineWidth = width;
    context.stroke();
}

function drawPoints(context, { type, points = [], outline_color, fill_color, thickness = 1 }, place, scale, density) {
    const places = points.filter(isPlace).map(place);
    const width = Math.max(thickness * scale, 2 * density);
    const color = toColor(outline_color);
    if (type === kPoints) {
        context.fillStyle = color;
        for (const [x, y] of places) {
            context.beginPath();
            context.arc(x, y, width * 1.5, 0, 2 * Math.PI);
            context.fill();
        }
        return;
    }
    if (places.length < 2) {
        return;
    }
    context.beginPath();
    places.forEach(([x, y], i) => {
        if (i === 0 || (type === kLineList && i % 2 === 0)) {
            context.moveTo(x, y);
        } else {
            context.lineTo(x, y);
        }
    });
    if (type === kLineLoop) {
        context.closePath();
        context.fillStyle = toColor(fill_color);
        context.fill();
    }
    stroke(context, color, width);
}

function drawCircle(context, { position, diameter = 0, thickness = 1, fill_color, outline_color }, place, scale, density) {
    if (!isPlace(position) || !(diameter > 0)) {
        return;
    }
    context.beginPath();
    context.arc(...place(position), (diameter / 2) * scale, 0, 2 * Math.PI);
    context.fillStyle = toColor(fill_color);
    context.fill();
    stroke(context, toColor(outline_color), Math.max(thickness * scale, 2 * density));
}

/** The position is the lower left corner of the text. What would leave the picture is moved into it. */
function drawText(context, { position, text = "", font_size = 8, text_color, background_color }, place, scale, density) {
    if (!isPlace(position) || text === "") {
        return;
    }
    const size = Math.max(font_size * scale, kSmallestFont * density);
    const margin = size / 3;
    context.font = `600 ${size}px system-ui, sans-serif`;
    context.textBaseline = "alphabetic";
    const width = context.measureText(text).width + 2 * margin;
    const height = size + margin;
    const clamp = (value, highest) => Math.max(0, Math.min(value, highest));
    const [x, y] = place(position);
    const left = clamp(x, context.canvas.width - width);
    const top = clamp(y - height, context.canvas.height - height);
    context.fillStyle = toColor(background_color);
    context.beginPath();
    context.roundRect(left, top, width, height, size / 5);
    context.fill();
    context.fillStyle = toColor(text_color);
    context.fillText(text, left + margin, top + height - margin);
}
