// Measurements in the page. These functions run in the browser, so each is self-contained.

/** Where the white ball of test:ball is, where boxes are drawn, and the brightness; as fractions of the picture. */
export function measureCamera(number) {
    const card = document.querySelector(`[data-camera="${number}"]`);
    const picture = card?.querySelector("canvas.picture");
    const overlay = card?.querySelector("canvas.overlay");
    if (!picture?.dataset.drawn || overlay.width === 0) {
        return null;
    }
    const visit = (canvas, take) => {
        const { width, height } = canvas;
        const { data } = canvas.getContext("2d").getImageData(0, 0, width, height);
        for (let i = 0; i < width * height; ++i) {
            take((i % width) / width, Math.floor(i / width) / height, data[4 * i], data[4 * i + 1], data[4 * i + 2], data[4 * i + 3]);
        }
        return width * height;
    };
    let [sum, count, sumX, sumY] = [0, 0, 0, 0];
    const pixels = visit(picture, (x, y, red, green, blue) => {
        sum += (red + green + blue) / 3;
        if (Math.min(red, green, blue) > 180) {
            count += 1;
            sumX += x;
            sumY += y;
        }
    });
    let box = null;
    visit(overlay, (x, y, red, green, blue, alpha) => {
        if (alpha > 200 && red > 230 && green > 110 && green < 150 && blue < 40) {
            box ??= { left: x, top: y, right: x, bottom: y };
            box = { left: Math.min(box.left, x), top: box.top, right: Math.max(box.right, x), bottom: y };
        }
    });
    return { drawn: Number(picture.dataset.drawn), mean: sum / pixels, ball: count > 0 ? { x: sumX / count, y: sumY / count } : null, box };
}

/** Whether a plot shows a curve: pixels of its colour in rows of several heights. */
export function isPlotDrawn(name) {
    const plot = [...document.querySelectorAll("[data-plot]")].find(({ dataset }) => dataset.plot === name);
    const canvas = plot?.querySelector("canvas");
    if (!canvas || !(canvas.width > 0)) {
        return false;
    }
    const [red, green, blue] = getComputedStyle(plot.querySelector("output")).color.match(/\d+/g).map(Number);
    const { data } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
    const rows = new Set();
    for (let i = 0; i < data.length; i += 4) {
        if (data[i + 3] > 200 && Math.abs(data[i] - red) + Math.abs(data[i + 1] - green) + Math.abs(data[i + 2] - blue) < 30) {
            rows.add(Math.floor(i / 4 / canvas.width));
        }
    }
    return rows.size > 3;
}
