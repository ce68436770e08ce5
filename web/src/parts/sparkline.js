// A trend in the height of a line of text.
import { html } from '../html.js';

const WIDTH = 90, HEIGHT = 16;

export function Sparkline({ trend, of = point => point.count }) {
  const values = (trend ?? []).map(of), most = Math.max(...values, 0);
  if (!most) return null;
  const bar = WIDTH / values.length;
  return html`<svg class="sparkline" width=${WIDTH} height=${HEIGHT} aria-hidden="true">${values.map((value, at) => {
    const height = Math.max(value ? 1 : 0, value / most * HEIGHT);
    return html`<rect key=${at} x=${at * bar} y=${HEIGHT - height} width=${Math.max(1, bar - 1)} height=${height}></rect>`;
  })}</svg>`;
}
