// Lines and stacked areas over time. Dragging chooses a range; releases stand as dashed lines.
import 'uplot/dist/uPlot.min.css';
import { useEffect, useRef } from 'preact/hooks';
import uPlot from 'uplot';
import { html } from '../html.js';

const HEIGHT_PX = 150;

// Each line above the sum of those before it; drawn from the highest to the lowest, so that each hides what is below it.
function stacked(lines) {
  const sums = [];
  let before;
  for (const line of lines) {
    before = line.values.map((value, at) => (value ?? 0) + (before?.[at] ?? 0));
    sums.unshift({ ...line, values: before, raw: line.values });
  }
  return sums;
}

function drawMarks(marks, colour) {
  return plot => {
    const { ctx, bbox } = plot;
    ctx.save();
    ctx.strokeStyle = ctx.fillStyle = colour;
    ctx.setLineDash([4, 3]);
    for (const { at, name } of marks) {
      const x = plot.valToPos(at / 1000, 'x', true);
      if (x < bbox.left || x > bbox.left + bbox.width) continue;
      ctx.beginPath();
      ctx.moveTo(x, bbox.top);
      ctx.lineTo(x, bbox.top + bbox.height);
      ctx.stroke();
      ctx.fillText(name, x + 3, bbox.top + 10 * devicePixelRatio);
    }
    ctx.restore();
  };
}

function options({ lines, area, format, marks, onZoom, from, until }, width, style) {
  const colour = name => style.getPropertyValue(`--${name}`).trim();
  const axis = { stroke: colour('dim'), grid: { stroke: colour('line'), width: 1 }, ticks: { stroke: colour('line'), width: 1 }, font: `11px ${style.fontFamily}` };
  return {
    width,
    height: HEIGHT_PX,
    legend: { show: false },
    cursor: { drag: { x: true, y: false, setScale: false }, points: { show: false }, y: false },
    scales: { x: { time: true, range: [from / 1000, until / 1000] }, y: { range: (_, least, most) => [0, most > 0 ? most * 1.08 : 1] } },
    axes: [axis, { ...axis, size: 74, values: (_, ticks) => ticks.map(format) }],
    series: [{}, ...lines.map(line => ({ label: line.name, stroke: colour(line.colour), fill: area ? colour(line.colour) : undefined, width: area ? 0 : 1.5, dash: line.dash, points: { show: line.values.includes(null), size: 4, fill: colour(line.colour) } }))],
    hooks: {
      draw: [drawMarks(marks, colour('dim'))],
      setSelect: [plot => {
        if (plot.select.width < 4) return;
        onZoom(...[plot.select.left, plot.select.left + plot.select.width].map(x => Math.round(plot.posToVal(x, 'x') * 1000)));
      }],
    },
  };
}

// `lines`: { name, colour, values, dash }, with one value for each of `times` (milliseconds). `area` stacks them.
export function Chart({ title, times, lines, area, format, marks = [], from, until, onZoom }) {
  const box = useRef(), told = useRef();
  useEffect(() => {
    const scheme = matchMedia('(prefers-color-scheme: dark)');
    let plot;
    const draw = () => {
      plot?.destroy();
      const drawn = area ? stacked(lines) : lines;
      const settings = options({ lines: drawn, area, format, marks, onZoom, from, until }, box.current.clientWidth, getComputedStyle(box.current));
      settings.hooks.setCursor = [({ cursor: { idx } }) => { told.current.textContent = idx === null || idx === undefined ? '' : words(idx); }];
      plot = new uPlot(settings, [times.map(at => at / 1000), ...drawn.map(line => line.values)], box.current);
    };
    const words = at => `${new Date(times[at]).toLocaleTimeString([], { hour: '2-digit', minute: '2-digit' })}: ${lines.map(line => `${line.name} ${format(line.values[at] ?? 0)}`).join(', ')}`;
    draw();
    const resized = new ResizeObserver(([{ contentRect }]) => plot.setSize({ width: contentRect.width, height: HEIGHT_PX }));
    resized.observe(box.current);
    scheme.addEventListener('change', draw);
    return () => {
      resized.disconnect();
      scheme.removeEventListener('change', draw);
      plot.destroy();
    };
  }, [times, lines, marks]);
  const most = lines.map(line => `${line.name} at most ${format(Math.max(0, ...line.values.map(value => value ?? 0)))}`).join(', ');
  return html`<figure class="chart"><figcaption><b>${title}</b> ${lines.map(line => html`<span key=${line.name}><i class=${`swatch${line.dash ? ' dashed' : ''}`} style=${{ background: `var(--${line.colour})` }}></i>${line.name}</span>`)}
      <span class="dim" ref=${told}></span></figcaption>
    <div ref=${box} role="img" aria-label=${`${title}: ${most}`}></div></figure>`;
}
