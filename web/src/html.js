// htm's templates make Preact's elements: every text in them stays a text.
import { h } from 'preact';
import htm from 'htm';

export const html = htm.bind(h);
