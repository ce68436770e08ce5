// A flame graph: functions by the time below their callers, on a canvas, since it has thousands of frames. What is narrower
// than half a pixel is not drawn; the table of functions has it.
import { useEffect, useLayoutEffect, useRef, useState } from 'preact/hooks';
import { html } from '../html.js';
import { count, milliseconds } from '../format.js';
import { layerName } from '../layers.js';

const ROW_PX = 20;
const LEAST_PX = 0.5;
const MOST_ROWS = 120;

// Frames as rectangles { frame, x, width } in parts of `root`, its callers above it at full width.
function placed(roots, root, pixels) {
  const boxes = [];
  const callers = [];
  for (let at = root?.parent; at && at.depth >= 0; at = at.parent) callers.push(at);
  for (const frame of callers) boxes.push({ frame, x: 0, width: 1 });
  const tops = root ? [root] : roots;
  const whole = tops.reduce((sum, { taken }) => sum + taken, 0) || 1;
  const waiting = [{ frames: tops, x: 0 }];
  while (waiting.length) {
    let { frames, x } = waiting.pop();
    for (const frame of frames) {
      const width = frame.taken / whole;
      if (width * pixels >= LEAST_PX && frame.depth < MOST_ROWS) {
        boxes.push({ frame, x, width });
        waiting.push({ frames: frame.children.values(), x });
      }
      x += width;
    }
  }
  return boxes;
}

function draw(canvas, boxes, hovered) {
  const ratio = devicePixelRatio || 1, width = canvas.clientWidth, height = canvas.clientHeight;
  canvas.width = width * ratio;
  canvas.height = height * ratio;
  const style = getComputedStyle(canvas), paint = canvas.getContext('2d');
  const colour = name => style.getPropertyValue(name);
  paint.scale(ratio, ratio);
  paint.font = `12px ${style.fontFamily}`;
  paint.textBaseline = 'middle';
  for (const { frame, x, width: part } of boxes) {
    const left = x * width, top = frame.depth * ROW_PX, size = part * width;
    paint.fillStyle = colour(`--${frame.layer}-soft`);
    paint.fillRect(left, top, Math.max(LEAST_PX, size - 1), ROW_PX - 1);
    paint.fillStyle = colour(`--${frame.layer}`);
    paint.fillRect(left, top, Math.max(LEAST_PX, size - 1), frame === hovered ? ROW_PX - 1 : 3);
    if (size < 30) continue;
    paint.save();
    paint.beginPath();
    paint.rect(left, top, size - 4, ROW_PX);
    paint.clip();
    paint.fillStyle = colour(frame === hovered ? '--on-layer' : '--text');
    paint.fillText(frame.label, left + 4, top + ROW_PX / 2 + 2);
    paint.restore();
  }
}

const depthOf = boxes => Math.max(0, ...boxes.map(({ frame }) => frame.depth)) + 1;

const inWords = frame => `${frame.label}: ${milliseconds(frame.taken)}, of that own ${milliseconds(frame.own)}, ${count(frame.calls)} calls, ${layerName(frame.layer)}`;

export function Flame({ frames, label }) {
  const canvas = useRef();
  const [root, setRoot] = useState();
  const [hovered, setHovered] = useState();
  const [width, setWidth] = useState(800);
  const boxes = placed(frames, root, width);
  useLayoutEffect(() => {
    const seen = new ResizeObserver(([{ contentRect }]) => setWidth(contentRect.width));
    seen.observe(canvas.current);
    return () => seen.disconnect();
  }, []);
  useEffect(() => {
    const scheme = matchMedia('(prefers-color-scheme: dark)');
    const again = () => draw(canvas.current, boxes, hovered);
    again();
    scheme.addEventListener('change', again);
    return () => scheme.removeEventListener('change', again);
  });
  const under = event => {
    const { left, top } = canvas.current.getBoundingClientRect();
    const x = (event.clientX - left) / width, depth = Math.floor((event.clientY - top) / ROW_PX);
    return boxes.find(box => box.frame.depth === depth && x >= box.x && x < box.x + box.width)?.frame;
  };
  return html`<section class="flame" aria-label="Flame graph">
    <p class="tools"><span role="status">${hovered ? inWords(hovered) : root ? inWords(root) : html`<span class="dim">${label} Click a frame to look closer. The table of functions has the same in numbers.</span>`}</span>
      ${root && html`<button class="quiet" onClick=${() => setRoot(undefined)}>All</button>`}</p>
    <canvas ref=${canvas} role="img" aria-label="Functions by the time below their callers; the table of functions has the same in numbers" style=${{ height: `${depthOf(boxes) * ROW_PX}px` }}
      onPointerMove=${event => setHovered(under(event))} onPointerLeave=${() => setHovered(undefined)} onClick=${event => setRoot(under(event))}></canvas>
  </section>`;
}
