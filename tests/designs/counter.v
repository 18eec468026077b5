// A small clocked design whose Icarus Verilog waveform is a VCD fixture of the tests
// (tests/designs/simulate.sh). A counter with an enable and a tri-state output, a state machine
// (a SystemVerilog enumeration), an integer, a real, a 64-bit time, an event, X from a
// missing reset and from two fighting drivers, Z from the tri-state bus.
`timescale 1ns / 1ps

module counter (
    input wire clk,
    input wire rst,
    input wire en,
    output reg [7:0] count,
    output wire [3:0] low_z   // the low nibble while enabled, else high impedance
);
    assign low_z = en ? count[3:0] : 4'bz;
    always @(posedge clk) begin
        if (rst) count <= 8'd0;
        else if (en) count <= count + 8'd1;
    end
endmodule

module fsm (
    input wire clk,
    input wire rst,
    input wire [7:0] count,
    output reg [1:0] code
);
    typedef enum logic [1:0] {IDLE, COUNT, WRAP, HALT} state_t;
    state_t state;
    always @(posedge clk) begin
        if (rst) state <= IDLE;
        else case (state)
            IDLE: state <= COUNT;
            COUNT: if (count == 8'hFE) state <= WRAP;
            WRAP: state <= HALT;
            HALT: state <= COUNT;
        endcase
    end
    always @(state) code = state;
endmodule

module tb;
    reg clk = 1'b0;
    reg rst;                  // X until the reset is applied
    reg en = 1'b0;
    wire [7:0] count;
    wire [3:0] low_z;
    wire [1:0] code;
    wire fight;               // two drivers: X while they disagree
    reg drive_a = 1'b0, drive_b = 1'b0;
    integer cycles = 0;
    integer delta = -3;
    real level = 0.1;
    time last_edge = 0;
    event wrapped;

    assign fight = drive_a;
    assign fight = drive_b;

    counter dut (.clk(clk), .rst(rst), .en(en), .count(count), .low_z(low_z));
    fsm control (.clk(clk), .rst(rst), .count(count), .code(code));

    always #5 clk = ~clk;
    always @(posedge clk) begin
        cycles <= cycles + 1;
        delta <= delta * -2 + 1;
        level <= level * 1.37 - 0.0625;
        last_edge <= $time;
        drive_b <= cycles[2];
        if (count == 8'hFF) -> wrapped;
    end

    initial begin
        $dumpfile(`VCD_FILE);
        $dumpvars(0, tb);
        #12 rst = 1'b1;
        #20 rst = 1'b0;
        #10 en = 1'b1;
        #2600 en = 1'b0;
        #40 en = 1'b1;
        #100 $finish;
    end
endmodule
