// The design that makes the large VCD of the VCD benchmark (bench/vcd/vcd_bench.sh): UNITS
// copies of a unit with a 32-bit LFSR, a 16-bit counter, eight single bits taken from the LFSR
// and an integer, all clocked by one 10 ns clock, for +cycles=N cycles. About 3.6 KB of VCD per
// cycle: 300,000 cycles give about 1.1 GB.
`timescale 1ns / 1ps

module unit #(parameter [31:0] SEED = 32'h1) (input wire clk);
    reg [31:0] lfsr = SEED;
    reg [15:0] count = 16'd0;
    wire [7:0] taps = {lfsr[3], lfsr[7], lfsr[11], lfsr[13], lfsr[17], lfsr[19], lfsr[23], lfsr[29]};
    wire t0 = taps[0], t1 = taps[1], t2 = taps[2], t3 = taps[3];
    wire t4 = taps[4], t5 = taps[5], t6 = taps[6], t7 = taps[7];
    integer sum = 0;
    always @(posedge clk) begin
        lfsr <= {lfsr[30:0], lfsr[31] ^ lfsr[21] ^ lfsr[1] ^ lfsr[0]};
        count <= count + 16'd1;
        if (lfsr[0]) sum <= sum + {28'd0, lfsr[7:4]} - 7;
    end
endmodule

module top;
    localparam UNITS = 48;
    reg clk = 1'b0;
    integer cycles;
    genvar i;
    generate
        for (i = 0; i < UNITS; i = i + 1) begin : u
            unit #(.SEED(32'h9E3779B9 * (i + 1) | 1)) inst (.clk(clk));
        end
    endgenerate
    always #5 clk = ~clk;
    initial begin
        if (!$value$plusargs("cycles=%d", cycles)) cycles = 1000;
        $dumpfile(`VCD_FILE);
        $dumpvars(0, top);
        #(10 * cycles) $finish;
    end
endmodule
