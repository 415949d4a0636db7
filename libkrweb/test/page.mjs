// Uses the page like a person, with mouse and keys, with kr serve, a moving ball and the motion module.
//   page.mjs KR MOTION-LIBRARY BROKER FOLDER
// Prints a line for each sentence that holds. For one that does not, saves FOLDER/failed-N.png.

import { join } from "node:path";
import { Browser } from "./browser.mjs";
import { findFreePort, KrPrograms } from "./krprograms.mjs";
import { measureCamera, isPlotDrawn } from "./measure.mjs";

const [kr, motion, broker, folder] = process.argv.slice(2);
const kScript = "<script>";
const kKey = "<img src=x onerror=alert(1)><script>alert(1)</script>";

const programs = new KrPrograms(kr, broker);
const port = await findFreePort();
const address = `127.0.0.1:${port}`;
const serve = (...more) => programs.start("serving on", "serve", "--camera", "0=test:ball", "--run", motion, "--run", `${kScript}=${motion}`, ...more);

function require(holds, text) {
    if (!holds) {
        throw new Error(text);
    }
}

const extractor = (name) => `[data-extractor="${name}"]`;
const isShown = (name, state) => document.querySelector(`[data-extractor="${name}"] .state`)?.textContent === state;
const isConnected = (text) => document.querySelector("#connection").textContent === text;
const curtainOf = () => {
    const curtain = document.querySelector('[data-camera="0"] .curtain');
    return curtain && !curtain.hidden ? curtain.textContent : "";
};
const isDrawing = (drawn) => Number(document.querySelector('[data-camera="0"] canvas.picture')?.dataset.drawn ?? 0) > drawn;
const countDrawn = (page) => page.evaluate(() => Number(document.querySelector('[data-camera="0"] canvas.picture')?.dataset.drawn ?? 0));

const sentences = [
    [
        "the picture moves",
        async (page) => {
            const first = await page.waitFor("a picture with a ball", `(number) => { const m = (${measureCamera})(number); return m?.ball && m; }`, 0);
            await page.waitFor(
                "the ball at another place",
                `(number, x) => { const m = (${measureCamera})(number); return m?.ball && Math.abs(m.ball.x - x) > 0.1; }`,
                0,
                first.ball.x,
            );
        },
    ],
    [
        "one click subscribes",
        async (page) => {
            await page.waitFor("KRMotion to be idle", isShown, "KRMotion", "idle");
            await page.click(`${extractor("KRMotion")} .primary`);
            await page.waitFor("KRMotion to run", isShown, "KRMotion", "running");
            require(programs.run("call", "KRMotion", "getSubscribersInfo").includes('"web"'), "web is not a subscriber");
        },
    ],
    [
        "a box of the motion module follows the ball",
        async (page) => {
            // In most pictures: a misplaced box is over the ball at times.
            const kPictures = 40;
            const margin = 0.03; // the box may be of the previous picture
            const isOver = ({ ball, box }) =>
                box.right - box.left < 0.3 && ball.x > box.left - margin && ball.x < box.right + margin && ball.y > box.top - margin && ball.y < box.bottom + margin;
            const seen = [];
            while (seen.length < kPictures) {
                const next = `(number, last) => { const m = (${measureCamera})(number); return m?.ball && m.box && m.drawn > last && m; }`;
                seen.push(await page.waitFor(`picture ${seen.length + 1} with a ball and a box`, next, 0, seen.at(-1)?.drawn ?? 0));
            }
            const places = seen.map(({ ball }) => ball.x);
            require(Math.max(...places) - Math.min(...places) > 0.2, "the ball does not move");
            const over = seen.filter(isOver).length;
            require(over > 0.5 * kPictures, `a box lies over the ball in ${over} of ${kPictures} pictures`);
        },
    ],
    [
        "a module's annotations can be hidden",
        async (page) => {
            const chip = '[data-camera="0"] .chip[data-module="KRMotion"]';
            const countBoxes = async () => {
                let [boxes, drawn] = [0, 0];
                for (let i = 0; i < 10; ++i) {
                    const next = `(number, last) => { const m = (${measureCamera})(number); return m?.ball && m.drawn > last && m; }`;
                    const seen = await page.waitFor("the next picture", next, 0, drawn);
                    drawn = seen.drawn;
                    boxes += seen.box ? 1 : 0;
                }
                return boxes;
            };
            require((await countBoxes()) > 5, "there are too few boxes to hide");
            await page.click(chip);
            await page.waitFor("no box", `(number) => { const m = (${measureCamera})(number); return m && !m.box; }`, 0);
            require((await countBoxes()) === 0, "there are still boxes");
            await page.click(chip);
            await page.waitFor("a box", `(number) => (${measureCamera})(number)?.box`, 0);
        },
    ],
    [
        "pause pauses and shows it, by mouse and by key",
        async (page) => {
            await page.click(`${extractor("KRMotion")} .pause`);
            await page.waitFor("KRMotion to be paused", isShown, "KRMotion", "paused");
            require(programs.run("call", "KRMotion", "isPaused") === "1", "KRMotion is not paused");
            await page.waitFor("the old box to disappear", `(number) => { const m = (${measureCamera})(number); return m && !m.box; }`, 0);
            await page.evaluate(() => document.querySelector('[data-extractor="KRMotion"] .pause').focus());
            await page.press("p", 80);
            await page.waitFor("KRMotion to resume", isShown, "KRMotion", "running");
            require(programs.run("call", "KRMotion", "isPaused") === "0", "KRMotion is still paused");
        },
    ],
    [
        "a number is plotted by a click",
        async (page) => {
            await page.evaluate(() => document.querySelector("#memory").scrollIntoView());
            await page.click('[aria-label="Plot KRMotion/Motion[0]"]');
            await page.waitFor("a curve", isPlotDrawn, "KRMotion/Motion[0]");
            const text = await page.waitFor("its value", () => document.querySelector("[data-plot] output").textContent);
            require(Number(text) > 0 && Number(text) < 0.1, `${text} is no share of pixels`);
        },
    ],
    [
        "events are shown as they are raised",
        (page) =>
            page.waitFor("three MotionDetected", () =>
                [...document.querySelectorAll("#events [data-event='KRMotion/MotionDetected'] .count")].some(({ textContent }) => Number(/\d+/.exec(textContent)) >= 3),
            ),
    ],
    [
        "resolution and camera statistics follow",
        async (page) => {
            await page.evaluate(() => {
                const select = document.querySelector('[aria-label="Resolution of KRMotion"]');
                select.value = "0";
                select.dispatchEvent(new Event("change"));
            });
            await page.waitFor("a subscription of 160×120", () =>
                [...document.querySelectorAll('[data-camera="0"] .statistics li')].some(({ textContent }) => textContent.includes("KRMotion") && textContent.includes("160×120")),
            );
            require(programs.run("call", "KRMotion", "getResolution") === "0", "the resolution of KRMotion is not 0");
        },
    ],
    [
        "the picture is shown in the chosen size and colour space",
        async (page) => {
            const choose = (label, value) => {
                const select = document.querySelector(`[data-camera="0"] select[aria-label="${label} of the picture"]`);
                select.value = value;
                select.dispatchEvent(new Event("change"));
            };
            const isWide = (width) => document.querySelector('[data-camera="0"] canvas.picture').width === width;
            const isSubscribed = (form) => [...document.querySelectorAll('[data-camera="0"] .statistics .facts')].some(({ textContent }) => textContent === form);
            await page.waitFor("the choices", () => document.querySelector('[data-camera="0"] .choice')?.hidden === false);
            await page.evaluate(choose, "Size", "160x120");
            await page.evaluate(choose, "Colour space", "luma");
            await page.waitFor("a small picture", isWide, 160);
            await page.waitFor("a subscription to luma", isSubscribed, "160×120 luma");
            await page.evaluate(choose, "Size", "640x480");
            await page.evaluate(choose, "Colour space", "yuv422");
            await page.waitFor("the original picture", isWide, 640);
        },
    ],
    [
        "a refused call is reported",
        async (page) => {
            await page.evaluate(() => {
                const field = document.querySelector('[aria-label="Camera of KRMotion"]');
                field.value = "7";
                field.dispatchEvent(new Event("change"));
            });
            await page.waitFor("a message", () => document.querySelector("#toasts .toast")?.textContent.includes("KRMotion"));
        },
    ],
    [
        "a slider changes the picture's brightness",
        async (page) => {
            await page.click('[data-camera="0"] .control-part summary');
            const measure = `(number) => (${measureCamera})(number)?.mean`;
            const before = await page.evaluate(measure, 0);
            await page.evaluate(() => document.querySelector('[data-camera="0"] input[type=range][aria-label="brightness" i]').focus());
            await page.press("End", 35);
            await page.waitFor("a brighter picture", `(number, before) => (${measure})(number) > before + 60`, 0, before);
            await page.click('[data-camera="0"] [aria-label="Reset brightness" i]');
            await page.waitFor("the former brightness", `(number, before) => Math.abs((${measure})(number) - before) < 10`, 0, before);
        },
    ],
    [
        "a module and a key called <script> are shown as text",
        async (page) => {
            programs.run("memory", "set", kKey, JSON.stringify(kKey));
            await page.waitFor("the key", (name) => [...document.querySelectorAll(".keys .name")].some(({ textContent }) => textContent === name), kKey);
            await page.evaluate((name) => [...document.querySelectorAll(".keys .name")].find(({ textContent }) => textContent === name).scrollIntoView(), kKey);
            await page.waitFor("its value", (name) => [...document.querySelectorAll(".keys .value")].some(({ textContent }) => textContent === JSON.stringify(name)), kKey);
            require(await page.evaluate((name) => [...document.querySelectorAll(".extractor h3")].some(({ textContent }) => textContent === name), kScript), "no such extractor");
            require((await page.evaluate(() => document.scripts.length)) === 1, "a script was added to the page");
        },
    ],
    [
        "one click ends the subscription",
        async (page) => {
            await page.evaluate(() => [...document.querySelectorAll('[data-extractor="KRMotion"] button')].find(({ textContent }) => textContent === "Unsubscribe").click());
            await page.waitFor("KRMotion to be idle", isShown, "KRMotion", "idle");
        },
    ],
    [
        "the page shows the end of kr serve and recovers when it returns",
        async (page) => {
            await page.evaluate(() => document.querySelector('[data-camera="0"] canvas.picture').scrollIntoView());
            await programs.end(served, "SIGKILL");
            await page.waitFor("the connection to be shown as lost", isConnected, "disconnected");
            require((await page.waitFor("the camera to be shown as lost", curtainOf)) === "Connection lost", "another reason is shown");
            const drawn = await countDrawn(page);
            served = await serve("--web", address);
            await page.waitFor("the connection", isConnected, "live");
            await page.waitFor("new pictures", isDrawing, drawn);
            await page.waitFor("no curtain", () => document.querySelector('[data-camera="0"] .curtain').hidden);
            await page.waitFor("KRMotion again", isShown, "KRMotion", "idle");
            await programs.end(served, "SIGTERM");
        },
    ],
    [
        "kr web survives the camera service, shows its end and recovers",
        async (page) => {
            served = await serve();
            const web = await programs.start(address, "web", "--listen", address);
            await page.waitFor("the connection", isConnected, "live");
            let drawn = await countDrawn(page);
            await page.waitFor("pictures", isDrawing, drawn);
            await programs.end(served, "SIGKILL");
            await page.waitFor("the service to be shown as gone", isConnected, "no cameras");
            await page.waitFor("the extractor to be shown as gone", isShown, "KRMotion", "gone");
            require((await page.evaluate(curtainOf)) !== "", "the camera is not shown as gone");
            drawn = await countDrawn(page);
            served = await serve();
            await page.waitFor("new pictures", isDrawing, drawn);
            await page.waitFor("the extractor", isShown, "KRMotion", "idle");
            await page.waitFor("the service", isConnected, "live");
            await programs.end(web, "SIGTERM");
        },
    ],
];

let served = await serve("--web", address);
const browser = await Browser.open();
try {
    const page = await browser.openPage(`http://${address}/`);
    for (const [i, [sentence, prove]] of sentences.entries()) {
        try {
            await prove(page);
            console.log(sentence);
        } catch (error) {
            process.exitCode = 1;
            console.error(`not true: ${sentence}: ${error.message}`);
            await page.saveScreenshot(join(folder, `failed-${i}.png`));
        }
    }
    require(page.errors.length === 0, `errors in the page:\n${page.errors.join("\n")}`);
} catch (error) {
    console.error(error.message);
    process.exitCode = 1;
} finally {
    await browser.close();
    await programs.endAll();
}
